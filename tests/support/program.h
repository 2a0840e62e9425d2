// A program that is run as its user would run it.
#pragma once

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "raw_socket.h"
#include "wait.h"

extern char** environ;

namespace test {

/// A folder of its own, removed with the object.
class TempFolder {
 public:
  TempFolder() {
    std::string name = (std::filesystem::temp_directory_path() / "test.XXXXXX").string();
    check(mkdtemp(name.data()) != nullptr, "mkdtemp");
    path_ = name;
  }
  TempFolder(const TempFolder&) = delete;
  TempFolder& operator=(const TempFolder&) = delete;
  ~TempFolder() { std::filesystem::remove_all(path_); }

  std::string path(const std::string& name) const { return (path_ / name).string(); }

  /// @return the path of a new file
  std::string file(const std::string& name, const std::string& content) const {
    std::ofstream(path(name), std::ios::binary) << content;
    return path(name);
  }

 private:
  std::filesystem::path path_;
};

inline std::string contentOf(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

/// One run of a program. Its streams are files, apart from a standard output that is given.
class Program {
 public:
  /// @param words  the program's path and its arguments
  /// @param out  becomes standard output, and is left open; -1: a file, see out()
  explicit Program(std::vector<std::string> words, const std::string& input = {}, int out = -1) {
    folder_.file("in", input);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    const auto open = [&](int fd, const char* name, int flags) {
      posix_spawn_file_actions_addopen(&actions, fd, folder_.path(name).c_str(), flags, 0600);
    };
    open(STDIN_FILENO, "in", O_RDONLY);
    open(STDERR_FILENO, "err", O_WRONLY | O_CREAT);
    if (out < 0) {
      open(STDOUT_FILENO, "out", O_WRONLY | O_CREAT);
    } else {
      posix_spawn_file_actions_adddup2(&actions, out, STDOUT_FILENO);
    }
    std::vector<char*> arguments;
    for (std::string& word : words) arguments.push_back(word.data());
    arguments.push_back(nullptr);
    const int error =
        posix_spawn(&pid_, arguments[0], &actions, nullptr, arguments.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    check(error == 0, "posix_spawn");
  }
  Program(const Program&) = delete;
  Program& operator=(const Program&) = delete;
  ~Program() {
    if (pid_ <= 0) return;
    ::kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }

  std::string out() const { return contentOf(folder_.path("out")); }
  std::string err() const { return contentOf(folder_.path("err")); }

  /// Waits until one of its streams holds that text.
  bool says(const std::string& text) const {
    return eventually([&] { return (out() + err()).find(text) != std::string::npos; });
  }

  void signal(int number) const { ::kill(pid_, number); }

  /// Waits for its end.
  /// @return the exit status; -1 after a signal, -2 if it does not end
  int status() {
    int state = 0;
    if (!eventually([&] { return waitpid(pid_, &state, WNOHANG) == pid_; })) return -2;
    pid_ = -1;
    return WIFEXITED(state) ? WEXITSTATUS(state) : -1;
  }

 private:
  TempFolder folder_;
  pid_t pid_ = -1;
};

/// @return the port of this machine that a serving run tells; throws if it tells none
inline int portOf(const Program& server) {
  constexpr char kText[] = "listening on 127.0.0.1:";
  check(server.says(std::string(kText)), "serving");
  const std::string said = server.out() + server.err();
  return std::atoi(said.c_str() + said.find(kText) + sizeof kText - 1);
}

}  // namespace test
