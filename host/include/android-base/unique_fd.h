// Host stand-in for <android-base/unique_fd.h>: sole owner of a file descriptor.
#pragma once

#include <errno.h>
#include <unistd.h>

#include <utility>

namespace android {
namespace base {

class unique_fd {
public:
    unique_fd() = default;
    explicit unique_fd(int fd) : fd_(fd) {}
    ~unique_fd() { reset(); }

    unique_fd(const unique_fd&) = delete;
    unique_fd& operator=(const unique_fd&) = delete;
    unique_fd(unique_fd&& other) noexcept : fd_(other.release()) {}
    unique_fd& operator=(unique_fd&& other) noexcept {
        reset(other.release());
        return *this;
    }

    void reset(int new_fd = -1) {
        if (fd_ != -1) {
            int saved_errno = errno;  // closing must not clobber the caller's error
            ::close(fd_);
            errno = saved_errno;
        }
        fd_ = new_fd;
    }

    int get() const { return fd_; }
    bool ok() const { return fd_ >= 0; }
    operator int() const { return fd_; }  // NOLINT: the platform type converts too

    [[nodiscard]] int release() { return std::exchange(fd_, -1); }

private:
    int fd_ = -1;
};

}  // namespace base
}  // namespace android
