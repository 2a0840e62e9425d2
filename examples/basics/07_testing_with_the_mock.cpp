// A test of an application, with a mock controller in the place of an arm, also one that fails.
// Usage: 07_testing_with_the_mock TCPCOM SCRIPT, such as: tcpcom arm.json
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "brix_json.h"
#include "tcp_client_wrapper.h"

namespace {

/// The application: what it makes of the controller's broadcasts.
class ArmWatch : private brix::iRecieveListener {
 public:
  ArmWatch() { client_.attachListener(this); }

  bool connect(int port) { return client_.connectSocket("127.0.0.1", port) == 1; }

  /// @return the state that came last, "lost" when the link has gone silent
  std::string state() {
    if (!client_.isConnected()) return "lost";
    std::lock_guard<std::mutex> lock(mutex_);
    return state_;
  }

 private:
  void onReceive(const std::string& msg) override {
    const Json::Value message = brix_json::parseStr(msg);
    if (!message.isObject() || message["command"] != "state") return;
    std::lock_guard<std::mutex> lock(mutex_);
    state_ = message["state"].asString();
  }

  std::mutex mutex_;
  std::string state_;
  brix::TcpClientWrapper client_;  // last: it calls this object until it is gone
};

/// `tcpcom serve` on a port that the kernel chooses, ended with the object.
class Mock {
 public:
  explicit Mock(std::vector<std::string> words) {
    int pipe[2];
    if (pipe2(pipe, O_CLOEXEC) != 0) return;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, pipe[1], STDERR_FILENO);
    std::vector<char*> arguments;
    arguments.reserve(words.size() + 1);
    for (std::string& word : words) arguments.push_back(word.data());
    arguments.push_back(nullptr);
    const int error =
        posix_spawnp(&pid_, arguments[0], &actions, nullptr, arguments.data(), environ);
    if (error != 0) pid_ = -1;
    posix_spawn_file_actions_destroy(&actions);
    close(pipe[1]);
    notes_ = fdopen(pipe[0], "r");
    constexpr char kText[] = "listening on 127.0.0.1:";
    char line[256];
    while (port_ == 0 && notes_ != nullptr && std::fgets(line, sizeof line, notes_) != nullptr) {
      const char* text = std::strstr(line, kText);
      if (text != nullptr) port_ = std::atoi(text + std::strlen(kText));
    }
  }
  Mock(const Mock&) = delete;
  Mock& operator=(const Mock&) = delete;
  ~Mock() {
    if (pid_ > 0) kill(pid_, SIGTERM);
    if (pid_ > 0) waitpid(pid_, nullptr, 0);
    if (notes_ != nullptr) std::fclose(notes_);
  }

  /// @return its port, 0 if it could not be started
  int port() const { return port_; }

 private:
  pid_t pid_ = -1;
  std::FILE* notes_ = nullptr;
  int port_ = 0;
};

bool becomes(ArmWatch& watch, const char* state) {
  for (int tries = 0; tries < 2000 && watch.state() != state; ++tries) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  const bool reached = watch.state() == state;
  std::printf("%s: %s\n", state, reached ? "passed" : "FAILED");
  return reached;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fprintf(stderr, "usage: %s TCPCOM SCRIPT\n", argv[0]);
    return 2;
  }
  const Mock mock({argv[1], "serve", "0", argv[2], "--fault", "silent@1s"});
  if (mock.port() == 0) {
    std::fprintf(stderr, "%s does not serve %s\n", argv[1], argv[2]);
    return 1;
  }
  ArmWatch watch;
  if (!watch.connect(mock.port())) return 1;
  return becomes(watch, "idle") && becomes(watch, "lost") ? 0 : 1;
}
