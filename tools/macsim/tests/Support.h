#pragma once
// Helpers for tests that drive the real macsim binary through the links
// `macsim init` installs in a fresh temporary root.

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

namespace macsim_test {

struct Result {
    int status = -1; // exit status, or 128 + signal
    std::string out, err;
};

inline std::string drain(int fd) {
    std::string s;
    char buf[4096];
    ssize_t n;
    while ((n = ::read(fd, buf, sizeof buf)) > 0)
        s.append(buf, static_cast<std::size_t>(n));
    return s;
}

// Runs a program with an argument vector (argv[0] is the program path, as
// the daemon passes it), feeding `input` on standard input.
inline Result run(const std::vector<std::string>& argv, const std::string& input = {}) {
    int in[2], out[2], err[2];
    if (::pipe2(in, O_CLOEXEC) || ::pipe2(out, O_CLOEXEC) || ::pipe2(err, O_CLOEXEC))
        return {};
    const pid_t pid = ::fork();
    if (pid == 0) {
        ::dup2(in[0], 0);
        ::dup2(out[1], 1);
        ::dup2(err[1], 2);
        std::vector<char*> args;
        for (const auto& a : argv)
            args.push_back(const_cast<char*>(a.c_str()));
        args.push_back(nullptr);
        ::execv(args[0], args.data());
        ::_exit(127);
    }
    ::close(in[0]);
    ::close(out[1]);
    ::close(err[1]);
    if (!input.empty()) {
        ssize_t w = ::write(in[1], input.data(), input.size());
        (void)w;
    }
    ::close(in[1]);
    // Read both pipes without blocking on either: stderr is small.
    Result r;
    const int flags = ::fcntl(err[0], F_GETFL);
    ::fcntl(err[0], F_SETFL, flags | O_NONBLOCK);
    std::string errText;
    char buf[4096];
    for (;;) {
        ssize_t n = ::read(out[0], buf, sizeof buf);
        if (n > 0) {
            r.out.append(buf, static_cast<std::size_t>(n));
        }
        ssize_t m;
        while ((m = ::read(err[0], buf, sizeof buf)) > 0)
            errText.append(buf, static_cast<std::size_t>(m));
        if (n <= 0)
            break;
    }
    ::fcntl(err[0], F_SETFL, flags);
    errText += drain(err[0]);
    r.err = errText;
    ::close(out[0]);
    ::close(err[0]);
    int status = 0;
    ::waitpid(pid, &status, 0);
    r.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return r;
}

// A simulated Mac in a temporary folder, removed afterwards.
class Mac {
public:
    Mac() {
        char tmpl[] = "/tmp/macsim-test-XXXXXX";
        root_ = ::mkdtemp(tmpl);
        const Result r = macsim({"init", root_});
        EXPECT_EQ(r.status, 0) << r.err;
        macsim({"set", root_, "probe-delay", "0"});
    }
    ~Mac() {
        std::error_code ec;
        std::filesystem::remove_all(root_, ec);
    }
    Mac(const Mac&) = delete;
    Mac& operator=(const Mac&) = delete;

    const std::string& root() const { return root_; }
    std::string path(const std::string& macPath) const { return root_ + macPath; }

    Result macsim(std::vector<std::string> args, const std::string& input = {}) const {
        args.insert(args.begin(), MACSIM_PATH);
        return run(args, input);
    }
    Result tool(const std::string& macPath, std::vector<std::string> args, const std::string& input = {}) const {
        args.insert(args.begin(), path(macPath));
        return run(args, input);
    }
    Result pfctl(std::vector<std::string> args, const std::string& input = {}) const {
        return tool("/sbin/pfctl", std::move(args), input);
    }
    Result show(const std::string& what) const { return macsim({"show", root_, what}); }

private:
    std::string root_;
};

inline constexpr const char* kLoadWarning = "pfctl: Use of -f option, could result in flushing of rules\n"
                                            "present in the main ruleset added by the system at startup.\n"
                                            "See /etc/pf.conf for further details.\n\n";

inline constexpr const char* kBlackoutAnchor = "com.apple/999.test.orven.app";
inline constexpr const char* kBlackout = "# ORVEN Hard Kill \u2014 loaded into com.apple/999.test.orven.app, transient.\n"
                                         "# The main ruleset is NOT touched; this is added and removed.\n"
                                         "pass quick on lo0 all no state\n"
                                         "block drop quick all\n";

inline bool writeText(const std::string& path, const std::string& text = "x\n") {
    std::ofstream f(path);
    f << text;
    return static_cast<bool>(f);
}

inline std::string readText(const std::string& path) {
    std::ifstream f(path);
    std::stringstream ss;
    ss << f.rdbuf();
    return ss.str();
}

// The token from `pfctl -E` standard error.
inline std::string tokenOf(const Result& r) {
    const auto at = r.err.find("Token : ");
    if (at == std::string::npos)
        return {};
    return r.err.substr(at + 8, r.err.find('\n', at) - at - 8);
}

} // namespace macsim_test
