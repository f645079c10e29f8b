#include "Files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <random>

namespace orven::files {

namespace {

std::string describe(int error) { return std::strerror(error); }

} // namespace

std::optional<std::string> read(const std::string& path, std::size_t maxBytes)
{
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
    if (fd < 0) return std::nullopt;
    std::string content;
    char buffer[4096];
    for (;;) {
        const ssize_t n = ::read(fd, buffer, sizeof buffer);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0 || content.size() + static_cast<std::size_t>(n) > maxBytes) {
            ::close(fd);
            return std::nullopt;
        }
        if (n == 0) break;
        content.append(buffer, static_cast<std::size_t>(n));
    }
    ::close(fd);
    return content;
}

bool exists(const std::string& path)
{
    struct stat info{};
    return ::lstat(path.c_str(), &info) == 0;
}

OptionalError createDirectories(const std::string& path, mode_t mode)
{
    std::string prefix;
    std::size_t i = 0;
    while (i <= path.size()) {
        const std::size_t next = path.find('/', i);
        const std::size_t end = next == std::string::npos ? path.size() : next;
        prefix = path.substr(0, end);
        i = end + 1;
        if (prefix.empty()) continue;
        if (::mkdir(prefix.c_str(), mode) == 0) {
            ::chmod(prefix.c_str(), mode);  // the umask must not weaken or widen it
            continue;
        }
        if (errno != EEXIST) return describe(errno);
        struct stat info{};
        if (::stat(prefix.c_str(), &info) != 0) return describe(errno);
        if (!S_ISDIR(info.st_mode)) return describe(ENOTDIR);
        if (next == std::string::npos) break;
    }
    return std::nullopt;
}

OptionalError writeAtomically(const std::string& path, std::string_view content, mode_t mode)
{
    static thread_local std::mt19937_64 random{std::random_device{}()};
    const std::string temporary = path + ".tmp-" + std::to_string(::getpid()) + "-" + std::to_string(random());
    const int fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, mode);
    if (fd < 0) return describe(errno);
    auto fail = [&](int error) {
        ::close(fd);
        ::unlink(temporary.c_str());
        return describe(error);
    };
    std::size_t written = 0;
    while (written < content.size()) {
        const ssize_t n = ::write(fd, content.data() + written, content.size() - written);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return fail(errno);
        written += static_cast<std::size_t>(n);
    }
    if (::fchmod(fd, mode) != 0) return fail(errno);
    if (::fsync(fd) != 0) return fail(errno);
    if (::close(fd) != 0) {
        const int error = errno;
        ::unlink(temporary.c_str());
        return describe(error);
    }
    if (::rename(temporary.c_str(), path.c_str()) != 0) {
        const int error = errno;
        ::unlink(temporary.c_str());
        return describe(error);
    }
    return std::nullopt;
}

OptionalError remove(const std::string& path)
{
    if (::unlink(path.c_str()) != 0) return describe(errno);
    return std::nullopt;
}

OptionalError removeTree(const std::string& path)
{
    std::error_code error;
    std::filesystem::remove_all(path, error);
    if (error) return error.message();
    return std::nullopt;
}

std::optional<std::chrono::system_clock::time_point> modificationTime(const std::string& path)
{
    struct stat info{};
    if (::stat(path.c_str(), &info) != 0) return std::nullopt;
#ifdef __APPLE__
    const auto& stamp = info.st_mtimespec;
#else
    const auto& stamp = info.st_mtim;
#endif
    return std::chrono::system_clock::time_point(
        std::chrono::duration_cast<std::chrono::system_clock::duration>(std::chrono::seconds(stamp.tv_sec) +
                                                                        std::chrono::nanoseconds(stamp.tv_nsec)));
}

std::string parentDirectory(const std::string& path)
{
    const std::size_t slash = path.find_last_of('/');
    if (slash == std::string::npos) return ".";
    if (slash == 0) return "/";
    return path.substr(0, slash);
}

} // namespace orven::files
