// Real processes for multi-process and multi-user tests.
#pragma once

#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

namespace spf_test {

constexpr uid_t kNobody = 65534;
constexpr gid_t kNogroup = 65534;

bool isRoot();
gid_t groupId(const std::string& name);  // throws when the group does not exist

// Runs `body` in a forked child and returns its exit code, or 128 + signal when it was killed
// (a SIGBUS shows as 135). The child never returns into the test framework.
int runInChild(const std::function<int()>& body);

// Like runInChild, but the child first becomes `uid` with primary group `gid` and exactly the
// supplementary `groups`. Needs root.
int runAsUser(uid_t uid, gid_t gid, const std::vector<gid_t>& groups,
              const std::function<int()>& body);

// Starts `body` in a forked child without waiting; join() returns what runInChild would.
class Child {
public:
    explicit Child(const std::function<int()>& body);
    ~Child();
    Child(Child&& other) noexcept;
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;
    int join();

private:
    pid_t pid_;
};

// A pipe-based gate: children block in wait() until the parent calls open().
class Gate {
public:
    Gate();
    ~Gate();
    Gate(const Gate&) = delete;
    Gate& operator=(const Gate&) = delete;
    void wait();   // in a child
    void open();   // in the parent

private:
    int fds_[2];
};

// A string a child writes and the parent reads back (text through a pipe).
class Channel {
public:
    Channel();
    ~Channel();
    Channel(const Channel&) = delete;
    Channel& operator=(const Channel&) = delete;
    void send(const std::string& text);   // in the child
    std::string receive();                // in the parent, after the child was joined

private:
    int fds_[2];
};

}  // namespace spf_test
