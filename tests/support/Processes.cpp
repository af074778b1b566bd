#include <grp.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <utility>

#include "Support.hpp"

// Present only in coverage builds (whose link asks for it: a weak reference alone would not pull
// it out of libgcov); a child that leaves through _exit must save its counters.
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
        const bool dropped = ::setgroups(groups.size(), groups.data()) == 0 && ::setgid(kNobody) == 0 &&
                             ::setuid(kNobody) == 0;
        return dropped ? body() : 90;
    });
}

Child::Child(const std::function<int()>& body) : pid(spawn(body)) {}

Child::~Child() { if (pid > 0) ::kill(pid, SIGKILL), waitFor(pid); }

int Child::join() { return waitFor(std::exchange(pid, -1)); }

Pipe::Pipe() { (void)!::pipe(fds); }
Pipe::~Pipe() { ::close(fds[0]); if (fds[1] != -1) ::close(fds[1]); }

// Texts of less than PIPE_BUF bytes go through in one piece.
void Pipe::send(const std::string& text) { (void)!::write(fds[1], text.data(), text.size()); }

std::string Pipe::receive() {
    if (fds[1] != -1) ::close(std::exchange(fds[1], -1));
    std::string text;
    char buffer[4096];
    for (ssize_t got; (got = ::read(fds[0], buffer, sizeof buffer)) != 0;) {
        if (got < 0 && errno != EINTR) break;
        if (got > 0) text.append(buffer, static_cast<std::size_t>(got));
    }
    return text;
}

}  // namespace spf_test
