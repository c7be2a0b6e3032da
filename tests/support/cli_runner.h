// Runs the real mosaiq binary as a user would, for the command-line tests.
#pragma once

#include "support/test_util.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <vector>

extern char** environ;

namespace mq::test {

struct CliResult {
    int code = -1;
    std::string out, err;
};

// Starts mosaiq with args; stdout and stderr go to files in scratch so
// neither can block. workDir empty: the test's own working folder.
inline pid_t startMosaiq(const std::vector<std::string>& args, const fs::path& scratch,
                         const std::string& workDir = {}) {
    const std::string bin = MOSAIQ_BIN_DIR "/mosaiq";
    const std::string outFile = (scratch / ".stdout").string();
    const std::string errFile = (scratch / ".stderr").string();
    std::vector<std::string> all = {bin};
    all.insert(all.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (std::string& a : all) argv.push_back(a.data());
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    if (!workDir.empty()) posix_spawn_file_actions_addchdir_np(&actions, workDir.c_str());
    for (const auto& [fd, file] : {std::pair{1, &outFile}, std::pair{2, &errFile}})
        posix_spawn_file_actions_addopen(&actions, fd, file->c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                         0644);
    pid_t pid = 0;
    const int spawned = posix_spawn(&pid, bin.c_str(), &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (spawned != 0) ADD_FAILURE() << "cannot run " << bin;
    return spawned == 0 ? pid : -1;
}

// Waits for a started mosaiq; a signal shows as 128 + its number.
inline CliResult finishMosaiq(pid_t pid, const fs::path& scratch) {
    CliResult r;
    if (pid < 0) return r;
    int status = 0;
    waitpid(pid, &status, 0);
    r.code = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    r.out = readText(scratch / ".stdout");
    r.err = readText(scratch / ".stderr");
    return r;
}

inline CliResult runMosaiq(const std::vector<std::string>& args, const fs::path& scratch,
                           const std::string& workDir = {}) {
    return finishMosaiq(startMosaiq(args, scratch, workDir), scratch);
}

}  // namespace mq::test
