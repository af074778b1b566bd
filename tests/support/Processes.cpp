#include <grp.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <utility>

#include "Support.hpp"

// Present only in coverage builds; a child that leaves through _exit must save its counters.
extern "C" void __gcov_dump() __attribute__((weak));

namespace spf_test {
namespace {

int waitFor(pid_t pid) {
    int status = 0;
    while (::waitpid(pid, &status, 0) == -1) {
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// The child never returns into the test framework.
pid_t spawn(const std::function<int()>& body) {
    std::fflush(nullptr);
    const pid_t pid = ::fork();
    if (pid == -1) throw std::runtime_error("fork failed");
    if (pid != 0) return pid;
    int code = 102;
    try {
        code = body();
    } catch (const std::exception& error) {
        std::fprintf(stderr, "child: unexpected exception: %s\n", error.what());
        code = 101;
    } catch (...) {
    }
    std::fflush(nullptr);
    if (__gcov_dump != nullptr) __gcov_dump();
    ::_exit(code);
}

}  // namespace

bool isRoot() { return ::geteuid() == 0; }

gid_t groupId(const char* name) {
    const group* entry = ::getgrnam(name);
    if (entry == nullptr) throw std::runtime_error(std::string("no group ") + name);
    return entry->gr_gid;
}

int runInChild(const std::function<int()>& body) { return waitFor(spawn(body)); }

int runAsNobody(const std::vector<gid_t>& groups, const std::function<int()>& body) {
    return runInChild([&] {
        if (::setgroups(groups.size(), groups.data()) != 0 || ::setgid(kNobody) != 0 || ::setuid(kNobody) != 0) {
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

int Child::join() { return waitFor(std::exchange(pid_, -1)); }

Pipe::Pipe() {
    if (::pipe(fds_) != 0) throw std::runtime_error("pipe failed");
}

Pipe::~Pipe() {
    ::close(fds_[0]);
    if (fds_[1] != -1) ::close(fds_[1]);
}

void Pipe::send(const std::string& text) {
    for (std::size_t sent = 0; sent < text.size();) {
        const ssize_t written = ::write(fds_[1], text.data() + sent, text.size() - sent);
        if (written <= 0) return;
        sent += static_cast<std::size_t>(written);
    }
}

std::string Pipe::receive() {
    if (fds_[1] != -1) ::close(std::exchange(fds_[1], -1));
    std::string text;
    char buffer[4096];
    for (ssize_t got; (got = ::read(fds_[0], buffer, sizeof buffer)) != 0;) {
        if (got < 0 && errno != EINTR) break;
        if (got > 0) text.append(buffer, static_cast<std::size_t>(got));
    }
    return text;
}

}  // namespace spf_test
