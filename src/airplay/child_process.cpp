#include "airplay/child_process.h"

#include <fcntl.h>
#include <spawn.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <map>

extern char** environ;

namespace vt::airplay {

namespace {

void closeAll(std::initializer_list<int> fds) {
    for (int fd : fds)
        if (fd >= 0) ::close(fd);
}

}  // namespace

std::optional<ChildProcess> spawnChild(const std::vector<std::string>& argv,
                                       const std::vector<std::string>& env, std::string& error) {
    int in[2] = {-1, -1}, out[2] = {-1, -1}, err[2] = {-1, -1};
    if (::pipe2(in, O_CLOEXEC) != 0 || ::pipe2(out, O_CLOEXEC) != 0 ||
        ::pipe2(err, O_CLOEXEC) != 0) {
        error = std::strerror(errno);
        closeAll({in[0], in[1], out[0], out[1], err[0], err[1]});
        return std::nullopt;
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, in[0], STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, err[1], STDERR_FILENO);

    std::vector<char*> args, envp;
    for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    for (const std::string& e : env) envp.push_back(const_cast<char*>(e.c_str()));
    envp.push_back(nullptr);

    pid_t pid = -1;
    const int rc = ::posix_spawn(&pid, args[0], &actions, nullptr, args.data(), envp.data());
    posix_spawn_file_actions_destroy(&actions);
    closeAll({in[0], out[1], err[1]});
    if (rc != 0) {
        error = std::strerror(rc);
        closeAll({in[1], out[0], err[0]});
        return std::nullopt;
    }
    return ChildProcess{pid, in[1], out[0], err[0]};
}

std::vector<std::string> environmentWith(
    const std::vector<std::pair<std::string, std::string>>& overrides,
    const std::vector<std::pair<std::string, std::string>>& defaults) {
    std::map<std::string, std::string> vars;
    for (char** e = environ; e && *e; ++e) {
        const std::string entry = *e;
        const size_t eq = entry.find('=');
        if (eq != std::string::npos) vars[entry.substr(0, eq)] = entry.substr(eq + 1);
    }
    for (const auto& [name, value] : defaults) vars.try_emplace(name, value);
    for (const auto& [name, value] : overrides) vars[name] = value;
    std::vector<std::string> out;
    for (const auto& [name, value] : vars) out.push_back(name + "=" + value);
    return out;
}

}  // namespace vt::airplay
