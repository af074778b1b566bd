#include "Processes.hpp"

#include <grp.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <exception>
#include <stdexcept>

// Present only in coverage builds; a child that leaves through _exit must save its counters.
extern "C" void __gcov_dump() __attribute__((weak));

namespace spf_test {
namespace {

[[noreturn]] void finishChild(const std::function<int()>& body) {
    int code = 100;
    try {
        code = body();
    } catch (const std::exception& error) {
        std::fprintf(stderr, "child: unexpected exception: %s\n", error.what());
        code = 101;
    } catch (...) {
        code = 102;
    }
    std::fflush(nullptr);
    if (__gcov_dump != nullptr) {
        __gcov_dump();
    }
    ::_exit(code);
}

int waitFor(pid_t pid) {
    int status = 0;
    while (::waitpid(pid, &status, 0) == -1) {
    }
    if (WIFEXITED(status)) {
        return WEXITSTATUS(status);
    }
    return 128 + WTERMSIG(status);
}

pid_t spawn(const std::function<int()>& body) {
    std::fflush(nullptr);
    const pid_t pid = ::fork();
    if (pid == -1) {
        throw std::runtime_error("fork failed");
    }
    if (pid == 0) {
        finishChild(body);
    }
    return pid;
}

}  // namespace

bool isRoot() { return ::geteuid() == 0; }

gid_t groupId(const std::string& name) {
    const group* entry = ::getgrnam(name.c_str());
    if (entry == nullptr) {
        throw std::runtime_error("no group " + name);
    }
    return entry->gr_gid;
}

int runInChild(const std::function<int()>& body) { return waitFor(spawn(body)); }

int runAsUser(uid_t uid, gid_t gid, const std::vector<gid_t>& groups,
              const std::function<int()>& body) {
    return runInChild([&] {
        if (::setgroups(groups.size(), groups.data()) != 0 || ::setgid(gid) != 0 ||
            ::setuid(uid) != 0) {
            return 90;
        }
        return body();
    });
}

Child::Child(const std::function<int()>& body) : pid_(spawn(body)) {}

Child::~Child() {
    if (pid_ > 0) {
        ::kill(pid_, SIGKILL);
        waitFor(pid_);
    }
}

Child::Child(Child&& other) noexcept : pid_(other.pid_) { other.pid_ = -1; }

int Child::join() {
    const int code = waitFor(pid_);
    pid_ = -1;
    return code;
}

Gate::Gate() {
    if (::pipe(fds_) != 0) {
        throw std::runtime_error("pipe failed");
    }
}

Gate::~Gate() {
    ::close(fds_[0]);
    if (fds_[1] != -1) {
        ::close(fds_[1]);
    }
}

void Gate::wait() {
    // The write end must be closed in the child, or the read would never see the end.
    if (fds_[1] != -1) {
        ::close(fds_[1]);
        fds_[1] = -1;
    }
    char byte;
    while (::read(fds_[0], &byte, 1) == -1) {
    }
}

void Gate::open() {
    ::close(fds_[1]);
    fds_[1] = -1;
}

Channel::Channel() {
    if (::pipe(fds_) != 0) {
        throw std::runtime_error("pipe failed");
    }
}

Channel::~Channel() {
    ::close(fds_[0]);
    if (fds_[1] != -1) {
        ::close(fds_[1]);
    }
}

void Channel::send(const std::string& text) {
    const char* data = text.data();
    std::size_t left = text.size();
    while (left > 0) {
        const ssize_t written = ::write(fds_[1], data, left);
        if (written <= 0) {
            return;
        }
        data += written;
        left -= static_cast<std::size_t>(written);
    }
}

std::string Channel::receive() {
    if (fds_[1] != -1) {
        ::close(fds_[1]);
        fds_[1] = -1;
    }
    std::string text;
    char buffer[4096];
    ssize_t got;
    while ((got = ::read(fds_[0], buffer, sizeof buffer)) > 0) {
        text.append(buffer, static_cast<std::size_t>(got));
    }
    return text;
}

}  // namespace spf_test
