#include "probe_run.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string_view>

namespace {

constexpr int READ_WRITE_OWNER = 0600;

std::vector<std::string> Environment(const Variables& variables) {
    std::vector<std::string> result;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        const std::string_view text(*entry);
        if (text.rfind("LUMORA_LOG_", 0) != 0) {
            result.emplace_back(text);
        }
    }
    for (const auto& [name, value] : variables) {
        result.push_back(name + "=" + value);
    }
    return result;
}

std::vector<char*> Pointers(std::vector<std::string>& texts) {
    std::vector<char*> result;
    for (std::string& text : texts) {
        result.push_back(text.data());
    }
    result.push_back(nullptr);
    return result;
}

int Wait(pid_t child) {
    int status = 0;
    waitpid(child, &status, 0);
    return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

}  // namespace

TemporaryFolder::TemporaryFolder() {
    std::string pattern = ::testing::TempDir() + "lumora-log-XXXXXX";
    if (mkdtemp(pattern.data()) == nullptr) {
        ADD_FAILURE() << "no temporary folder";
    }
    mPath = pattern;
}

TemporaryFolder::~TemporaryFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(mPath, ignored);
}

std::string ReadFile(const std::string& path) {
    std::ostringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
}

std::vector<std::string> Lines(const std::string& text) {
    std::vector<std::string> result;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) {
        result.push_back(line);
    }
    return result;
}

ProbeResult RunProbe(const std::vector<std::string>& arguments, const Variables& variables,
                     int standardError) {
    const TemporaryFolder folder;
    const std::string out = folder.Path("out");
    const std::string err = folder.Path("err");
    std::vector<std::string> command{LOG_PROBE};
    command.insert(command.end(), arguments.begin(), arguments.end());
    std::vector<std::string> environment = Environment(variables);

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, out.c_str(), O_WRONLY | O_CREAT,
                                     READ_WRITE_OWNER);
    if (standardError < 0) {
        posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, err.c_str(), O_WRONLY | O_CREAT | O_APPEND,
                                         READ_WRITE_OWNER);
    } else {
        posix_spawn_file_actions_adddup2(&actions, standardError, STDERR_FILENO);
    }
    pid_t child = 0;
    const int failure = posix_spawn(&child, LOG_PROBE, &actions, nullptr, Pointers(command).data(),
                                    Pointers(environment).data());
    posix_spawn_file_actions_destroy(&actions);
    if (failure != 0) {
        ADD_FAILURE() << "the probe does not start: " << failure;
        return {};
    }
    const int exitCode = Wait(child);
    return {exitCode, ReadFile(out), Lines(ReadFile(err))};
}
