// Runs the real mosaiq binary as a user would, for the command-line tests.
#pragma once

#include "support/test_util.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <set>
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

// A fresh folder per test; mosaiq runs in workDir_, the repository root
// unless a test changes it, as example scenes name their files from there.
class CliFixture : public ::testing::Test {
protected:
    fs::path path(const std::string& name) const { return dir_ / name; }
    pid_t start(const std::vector<std::string>& args) {
        return startMosaiq(args, dir_.path(), workDir_);
    }
    CliResult finish(pid_t pid) { return finishMosaiq(pid, dir_.path()); }
    CliResult mosaiq(const std::vector<std::string>& args) { return finish(start(args)); }

    // The folder's entries, sorted, but for the captured output and `except`.
    std::vector<std::string> files(const std::set<std::string>& except = {}) const {
        std::vector<std::string> names;
        for (const auto& e : fs::directory_iterator(dir_.path())) {
            const std::string n = e.path().filename().string();
            if (n != ".stdout" && n != ".stderr" && !except.contains(n)) names.push_back(n);
        }
        std::sort(names.begin(), names.end());
        return names;
    }

    TempDir dir_;
    std::string workDir_ = MOSAIQ_SOURCE_DIR;
};

}  // namespace mq::test
