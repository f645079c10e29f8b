// Adding a CA to the admin trust settings for IPsec, or taking it out, with
// "/usr/bin/security" on a staged copy of the certificate.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <random>

#include "HelperService.h"
#include "Text.h"

namespace orven {

namespace {

constexpr std::size_t kMaxCertificateBytes = 65536;
constexpr double kSecurityTimeout = 30.0;

// A random (version 4) UUID in its standard upper-case text form.
std::string freshUUID()
{
    std::random_device source;
    std::uint8_t bytes[16];
    for (std::size_t i = 0; i < sizeof bytes; i += 4) {
        const auto word = source();
        for (std::size_t k = 0; k < 4; ++k) bytes[i + k] = static_cast<std::uint8_t>(word >> (8 * k));
    }
    bytes[6] = static_cast<std::uint8_t>((bytes[6] & 0x0F) | 0x40);
    bytes[8] = static_cast<std::uint8_t>((bytes[8] & 0x3F) | 0x80);
    static constexpr char hex[] = "0123456789ABCDEF";
    std::string out;
    for (std::size_t i = 0; i < sizeof bytes; ++i) {
        if (i == 4 || i == 6 || i == 8 || i == 10) out += '-';
        out += hex[bytes[i] >> 4];
        out += hex[bytes[i] & 0x0F];
    }
    return out;
}

std::string stagingPath(const std::string& temporaryDirectory)
{
    std::string directory = temporaryDirectory;
    if (directory.empty() || directory.back() != '/') directory += '/';
    return directory + "orven-ca-" + freshUUID() + ".der";
}

// Writes the certificate into a new file only this process's user can read;
// an existing file of that name is never reused. Absent on success, else the
// system's description of the error.
std::optional<std::string> stage(const std::string& hostPath, const std::vector<std::uint8_t>& der)
{
    const int fd = ::open(hostPath.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (fd < 0) return std::string(std::strerror(errno));
    std::size_t written = 0;
    while (written < der.size()) {
        const ssize_t n = ::write(fd, der.data() + written, der.size() - written);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            const std::string error = std::strerror(n < 0 ? errno : EIO);
            ::close(fd);
            ::unlink(hostPath.c_str());
            return error;
        }
        written += static_cast<std::size_t>(n);
    }
    if (::close(fd) != 0) {
        const std::string error = std::strerror(errno);
        ::unlink(hostPath.c_str());
        return error;
    }
    return std::nullopt;
}

// Overwrites the staged copy before removing it; failures are ignored.
void removeStaged(const std::string& hostPath)
{
    const int fd = ::open(hostPath.c_str(), O_WRONLY | O_NOFOLLOW | O_CLOEXEC);
    if (fd >= 0) {
        struct stat status {};
        if (::fstat(fd, &status) == 0 && status.st_size > 0) {
            const std::vector<char> zeros(static_cast<std::size_t>(status.st_size), 0);
            std::size_t written = 0;
            while (written < zeros.size()) {
                const ssize_t n = ::write(fd, zeros.data() + written, zeros.size() - written);
                if (n < 0 && errno == EINTR) continue;
                if (n <= 0) break;
                written += static_cast<std::size_t>(n);
            }
        }
        ::close(fd);
    }
    ::unlink(hostPath.c_str());
}

} // namespace

void HelperService::installTrustedCA(const std::vector<std::uint8_t>& certificateDER, ActionReply reply)
{
    runTrustedCertCommand(certificateDER, true, "installTrustedCA", reply);
}

void HelperService::removeTrustedCA(const std::vector<std::uint8_t>& certificateDER, ActionReply reply)
{
    runTrustedCertCommand(certificateDER, false, "removeTrustedCA", reply);
}

void HelperService::runTrustedCertCommand(const std::vector<std::uint8_t>& certificateDER, bool install,
                                          std::string_view label, ActionReply& reply)
{
    if (certificateDER.empty() || certificateDER.size() > kMaxCertificateBytes ||
        !context_.host.keychain().certificateCreateWithData(certificateDER)) {
        log_.error("%{public}s: rejected invalid CA DER", label);
        reply(false, std::string("Not a valid CA certificate (DER)"));
        return;
    }

    const std::string macPath = stagingPath(context_.host.temporaryDirectory());
    const std::string hostPath = context_.host.path(macPath);
    if (const auto error = stage(hostPath, certificateDER)) {
        reply(false, "Failed to stage CA cert: " + *error);
        return;
    }

    std::vector<std::string> arguments;
    if (install) arguments = {"add-trusted-cert", "-d", "-r", "trustRoot", "-p", "IPSec", macPath};
    else arguments = {"remove-trusted-cert", "-d", macPath};
    const auto result = runProcess(context_, paths::security, arguments, std::nullopt, kSecurityTimeout);
    removeStaged(hostPath);

    if (result.code == 0) {
        log_.notice("%{public}s OK", label);
        reply(true, std::nullopt);
        return;
    }
    const std::string detail = text::trimWhitespaceAndNewlines(result.err);
    const std::string message = "security exited " + std::to_string(result.code) + (detail.empty() ? "" : ": " + detail);
    log_.error("%{public}s failed: %{public}s", label, message);
    reply(false, message);
}

} // namespace orven
