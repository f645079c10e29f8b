#include "Store.h"

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <stdexcept>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <nlohmann/json.hpp>

namespace orven::macsim {

StorePaths::StorePaths(std::string r) : root(std::move(r)) {
    while (root.size() > 1 && root.back() == '/')
        root.pop_back();
    dir = root + "/.macsim";
    lock = dir + "/lock";
    pf = dir + "/pf.json";
    net = dir + "/net.json";
    faults = dir + "/faults.json";
    calls = dir + "/calls.jsonl";
    boottime = dir + "/boottime";
    launchd = dir + "/launchd";
}

bool StorePaths::exists() const {
    struct stat st {};
    return ::stat(pf.c_str(), &st) == 0;
}

std::optional<std::string> readFile(const std::string& path) {
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return std::nullopt;
    std::string out;
    char buf[16384];
    for (;;) {
        ssize_t n = ::read(fd, buf, sizeof buf);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            break;
        out.append(buf, static_cast<std::size_t>(n));
    }
    ::close(fd);
    return out;
}

bool writeFileAtomic(const std::string& path, std::string_view content) {
    const std::string tmp = path + ".tmp." + std::to_string(::getpid());
    int fd = ::open(tmp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0)
        return false;
    std::size_t done = 0;
    while (done < content.size()) {
        ssize_t n = ::write(fd, content.data() + done, content.size() - done);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0) {
            ::close(fd);
            ::unlink(tmp.c_str());
            return false;
        }
        done += static_cast<std::size_t>(n);
    }
    ::close(fd);
    return ::rename(tmp.c_str(), path.c_str()) == 0;
}

double realNow() {
    using namespace std::chrono;
    return duration<double>(system_clock::now().time_since_epoch()).count();
}

std::int64_t secondsNow() {
    using namespace std::chrono;
    return duration_cast<seconds>(system_clock::now().time_since_epoch()).count();
}

std::string joinArgs(const std::vector<std::string>& args) {
    std::string out;
    for (std::size_t i = 0; i < args.size(); ++i) {
        if (i)
            out += ' ';
        out += args[i];
    }
    return out;
}

Session::Session(const StorePaths& paths) : paths_(paths) {
    fd_ = ::open(paths_.lock.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    if (fd_ < 0)
        throw std::runtime_error("cannot open " + paths_.lock);
    while (::flock(fd_, LOCK_EX) != 0) {
        if (errno != EINTR)
            throw std::runtime_error("cannot lock " + paths_.lock);
    }
}

Session::~Session() {
    if (fd_ >= 0)
        ::close(fd_); // releases the lock
}

PfModel& Session::pf() {
    if (!pf_) {
        auto text = readFile(paths_.pf);
        if (!text)
            throw std::runtime_error("no simulated Mac at " + paths_.root + " (run: macsim init " + paths_.root + ")");
        pf_ = PfModel::fromJson(nlohmann::json::parse(*text));
    }
    return *pf_;
}

NetModel& Session::net() {
    if (!net_) {
        auto text = readFile(paths_.net);
        if (!text)
            throw std::runtime_error("no simulated Mac at " + paths_.root + " (run: macsim init " + paths_.root + ")");
        net_ = NetModel::fromJson(nlohmann::json::parse(*text));
    }
    return *net_;
}

std::vector<FaultRule>& Session::faults() {
    if (!faults_) {
        faults_.emplace();
        if (auto text = readFile(paths_.faults)) {
            for (const auto& f : nlohmann::json::parse(*text)) {
                FaultRule r;
                r.tool = f.at("tool").get<std::string>();
                if (f.contains("args"))
                    r.args = f["args"].get<std::string>();
                if (f.contains("exit"))
                    r.exitStatus = f["exit"].get<int>();
                if (f.contains("stdout"))
                    r.out = f["stdout"].get<std::string>();
                if (f.contains("stderr"))
                    r.err = f["stderr"].get<std::string>();
                r.hang = f.value("hang", false);
                r.delay = f.value("delay", 0.0);
                r.times = f.value("times", 1);
                r.skip = f.value("skip", 0);
                r.killCaller = f.value("kill-caller", false);
                faults_->push_back(r);
            }
        }
    }
    return *faults_;
}

void Session::reset(PfModel pf, NetModel net) {
    pf_ = std::move(pf);
    net_ = std::move(net);
    pfDirty_ = netDirty_ = true;
}

void Session::save() {
    if (pfDirty_ && pf_) {
        if (!writeFileAtomic(paths_.pf, pf_->toJson().dump()))
            throw std::runtime_error("cannot write " + paths_.pf);
        pfDirty_ = false;
    }
    if (netDirty_ && net_) {
        if (!writeFileAtomic(paths_.net, net_->toJson().dump()))
            throw std::runtime_error("cannot write " + paths_.net);
        netDirty_ = false;
    }
    if (faultsDirty_ && faults_) {
        if (faults_->empty()) {
            ::unlink(paths_.faults.c_str());
        } else {
            nlohmann::json arr = nlohmann::json::array();
            for (const auto& r : *faults_) {
                nlohmann::json f = {{"tool", r.tool},   {"hang", r.hang}, {"delay", r.delay},
                                    {"times", r.times}, {"skip", r.skip}, {"kill-caller", r.killCaller}};
                if (r.args)
                    f["args"] = *r.args;
                if (r.exitStatus)
                    f["exit"] = *r.exitStatus;
                if (r.out)
                    f["stdout"] = *r.out;
                if (r.err)
                    f["stderr"] = *r.err;
                arr.push_back(f);
            }
            if (!writeFileAtomic(paths_.faults, arr.dump()))
                throw std::runtime_error("cannot write " + paths_.faults);
        }
        faultsDirty_ = false;
    }
}

void Session::appendCall(const CallRecord& call) {
    nlohmann::json j = {{"tool", call.tool}, {"args", call.args}, {"fault", call.fault},
                        {"mutating", call.mutating}, {"time", call.time}, {"pid", call.pid}};
    std::string line = j.dump() + "\n";
    int fd = ::open(paths_.calls.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    if (fd < 0)
        return;
    ssize_t n = ::write(fd, line.data(), line.size());
    (void)n;
    ::close(fd);
}

std::vector<CallRecord> readCalls(const StorePaths& paths) {
    std::vector<CallRecord> out;
    auto text = readFile(paths.calls);
    if (!text)
        return out;
    std::size_t start = 0;
    while (start < text->size()) {
        auto end = text->find('\n', start);
        if (end == std::string::npos)
            end = text->size();
        std::string_view line(text->data() + start, end - start);
        start = end + 1;
        if (line.empty())
            continue;
        auto j = nlohmann::json::parse(line, nullptr, false);
        if (j.is_discarded())
            continue;
        CallRecord c;
        c.tool = j.value("tool", "");
        c.args = j.value("args", std::vector<std::string>{});
        c.fault = j.value("fault", false);
        c.mutating = j.value("mutating", false);
        c.time = j.value("time", 0.0);
        c.pid = j.value("pid", 0);
        out.push_back(std::move(c));
    }
    return out;
}

std::int64_t readBootTime(const StorePaths& paths) {
    auto text = readFile(paths.boottime);
    if (!text)
        return 0;
    try {
        return std::stoll(*text);
    } catch (...) {
        return 0;
    }
}

void writeBootTime(const StorePaths& paths, std::int64_t seconds) {
    writeFileAtomic(paths.boottime, std::to_string(seconds) + "\n");
}

} // namespace orven::macsim
