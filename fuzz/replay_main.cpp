// Replays a seed corpus through a fuzz target without libFuzzer, so every build runs the
// corpus as a regression test. Each argument is a corpus directory or a single input file.
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

namespace fs = std::filesystem;

// The inputs under one argument, sorted so a failing run repeats in the same order.
std::vector<fs::path> inputsOf(const fs::path& argument) {
    std::vector<fs::path> inputs;
    if (fs::is_directory(argument)) {
        for (const fs::directory_entry& entry : fs::directory_iterator(argument)) {
            if (entry.is_regular_file()) inputs.push_back(entry.path());
        }
    } else {
        inputs.push_back(argument);
    }
    std::sort(inputs.begin(), inputs.end());
    return inputs;
}

bool replay(const fs::path& input) {
    std::ifstream in(input, std::ios::binary);
    if (!in) {
        fprintf(stderr, "cannot read %s\n", input.c_str());
        return false;
    }
    const std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(in)),
                                     std::istreambuf_iterator<char>());
    LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        fprintf(stderr, "usage: %s CORPUS_DIR|INPUT...\n", argv[0]);
        return 2;
    }
    size_t ran = 0;
    for (int i = 1; i < argc; ++i) {
        if (!fs::exists(argv[i])) {
            fprintf(stderr, "no such corpus: %s\n", argv[i]);
            return 1;
        }
        for (const fs::path& input : inputsOf(argv[i])) {
            if (!replay(input)) return 1;
            ++ran;
        }
    }
    // An empty corpus replays nothing and proves nothing: count it as a failure.
    printf("replayed %zu inputs\n", ran);
    return ran > 0 ? 0 : 1;
}
