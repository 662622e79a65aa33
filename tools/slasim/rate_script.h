// Rate scripts: what traffic a simulated interface carries over time, and the command
// text stream of the module's configuration file.
//
// A script is "[AT:]RATE[,AT:RATE]...": RATE in the daemon's unit of 1024 bit/s, AT in
// seconds since the start (decimals allowed, strictly increasing). Each rate holds from its
// time until the next one; before the first time the rate is 0. "1200" is 1200 from the
// start; "1200,5:3000,12.5:0" is 1200 until 5 s, then 3000 until 12.5 s, then nothing.
#pragma once

#include <errno.h>
#include <stdint.h>
#include <stdlib.h>

#include <string>
#include <vector>

namespace slasim {

// Highest scripted rate, about 10 Gbit/s; far above any link the daemon steers.
constexpr uint32_t kMaxScriptRate = 10000000;

struct RateStep {
    double atSec;
    uint32_t rate;
};

class RateScript {
public:
    static bool parse(const std::string& text, RateScript* out, std::string* error) {
        std::vector<RateStep> steps;
        size_t start = 0;
        while (start <= text.size()) {
            size_t comma = text.find(',', start);
            if (comma == std::string::npos) comma = text.size();
            const std::string item = text.substr(start, comma - start);
            RateStep step = {0.0, 0};
            const size_t colon = item.find(':');
            if (colon == std::string::npos) {
                if (!steps.empty()) return fail(error, "\"" + item + "\" needs a time (AT:RATE)");
            } else if (!parseSeconds(item.substr(0, colon), &step.atSec)) {
                return fail(error, "bad time in \"" + item + "\"");
            }
            const std::string rate = colon == std::string::npos ? item : item.substr(colon + 1);
            if (!parseRate(rate, &step.rate)) {
                return fail(error, "bad rate in \"" + item + "\" (0 to " +
                                       std::to_string(kMaxScriptRate) + ")");
            }
            if (!steps.empty() && !(step.atSec > steps.back().atSec)) {
                return fail(error, "times must increase at \"" + item + "\"");
            }
            steps.push_back(step);
            start = comma + 1;
        }
        out->steps_ = std::move(steps);
        return true;
    }

    uint32_t rateAt(double seconds) const {
        uint32_t rate = 0;
        for (const RateStep& step : steps_) {
            if (seconds < step.atSec) break;
            rate = step.rate;
        }
        return rate;
    }

    const std::vector<RateStep>& steps() const { return steps_; }

private:
    static bool fail(std::string* error, const std::string& reason) {
        if (error != nullptr) *error = reason;
        return false;
    }

    static bool parseSeconds(const std::string& text, double* value) {
        if (text.empty() || text.find_first_not_of("0123456789.") != std::string::npos) {
            return false;
        }
        char* end = nullptr;
        errno = 0;
        *value = strtod(text.c_str(), &end);
        return errno == 0 && end == text.c_str() + text.size() && *value < 1e9;
    }

    static bool parseRate(const std::string& text, uint32_t* value) {
        if (text.empty() || text.size() > 10 ||
            text.find_first_not_of("0123456789") != std::string::npos) {
            return false;
        }
        const unsigned long long parsed = strtoull(text.c_str(), nullptr, 10);
        if (parsed > kMaxScriptRate) return false;
        *value = static_cast<uint32_t>(parsed);
        return true;
    }

    std::vector<RateStep> steps_;
};

// Turns a rate held over an interval into whole bytes, carrying the fraction into the next
// interval so the bytes written add up to the rate exactly over time.
class ByteBudget {
public:
    // rate in 1024 bit/s, i.e. 128 bytes per second per unit.
    uint32_t take(uint32_t rate, uint64_t elapsedMs) {
        const uint64_t milliBytes = static_cast<uint64_t>(rate) * 128 * elapsedMs + carry_;
        carry_ = milliBytes % 1000;
        const uint64_t bytes = milliBytes / 1000;
        return bytes > UINT32_MAX ? UINT32_MAX : static_cast<uint32_t>(bytes);
    }
    void reset() { carry_ = 0; }

private:
    uint64_t carry_ = 0;
};

// Splits the configuration file's byte stream into commands: each write is a text and its
// NUL. A text longer than the limit without a NUL is dropped up to the next NUL.
class CommandStream {
public:
    static constexpr size_t kMaxCommand = 4096;

    void feed(const char* data, size_t length) {
        for (size_t i = 0; i < length; ++i) {
            if (data[i] == '\0') {
                if (!overlong_) commands_.push_back(pending_);
                pending_.clear();
                overlong_ = false;
            } else if (pending_.size() < kMaxCommand) {
                pending_.push_back(data[i]);
            } else {
                overlong_ = true;
            }
        }
    }

    // The commands completed so far, oldest first; taking them empties the list.
    std::vector<std::string> take() {
        std::vector<std::string> done;
        done.swap(commands_);
        return done;
    }

private:
    std::string pending_;
    bool overlong_ = false;
    std::vector<std::string> commands_;
};

}  // namespace slasim
