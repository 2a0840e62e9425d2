// A peer with a network of its own.
#pragma once

#include <sched.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>

#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

#include "raw_socket.h"

namespace test {

inline constexpr int kPeerPort = 5000;  // in a namespace that has no other program

inline sockaddr_in addressOf(const std::string& ip, int port) {
  sockaddr_in address = loopback(port);
  inet_pton(AF_INET, ip.c_str(), &address.sin_addr);
  return address;
}

/// What a peer does; it is a plain program, not the code under test.
struct Habit {
  bool reads;
  int sendsBytes;  // in each message; 0: sends nothing
  int periodMs;
};

inline constexpr Habit kTalks{true, 200, 100};
inline constexpr Habit kStreams{true, 2000, 20};
inline constexpr Habit kNeverReads{false, 200, 100};
inline constexpr Habit kMute{false, 0, 100};

[[noreturn]] inline void servePeer(const Habit& habit) {
  const RawSocket listener(::socket(AF_INET, SOCK_STREAM, 0));
  const sockaddr_in address = addressOf("0.0.0.0", kPeerPort);
  check(bind(listener.fd(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0,
        "bind");
  check(listen(listener.fd(), 8) == 0, "listen");
  const std::string text =
      "{\"pad\":\"" + std::string(static_cast<std::size_t>(habit.sendsBytes), 'x') + "\"}\r\n";
  std::vector<RawSocket> clients;
  for (auto due = Clock::now();; due += std::chrono::milliseconds(habit.periodMs)) {
    std::this_thread::sleep_until(due);
    pollfd entry{listener.fd(), POLLIN, 0};
    while (poll(&entry, 1, 0) > 0) clients.emplace_back(::accept(listener.fd(), nullptr, nullptr));
    for (const RawSocket& client : clients) {
      static char block[1 << 20];
      while (habit.reads && recv(client.fd(), block, sizeof block, MSG_DONTWAIT) > 0) continue;
      if (habit.sendsBytes > 0)
        ::send(client.fd(), text.data(), text.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    }
  }
}

inline RawSocket dialServer(const std::string& ip, int port) {
  RawSocket socket(::socket(AF_INET, SOCK_STREAM, 0));
  const sockaddr_in address = addressOf(ip, port);
  check(connect(socket.fd(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0,
        "connect");
  return socket;
}

/// A process in a network of its own; ours is at 10.0.N.1, its own at 10.0.N.2. To be made before
/// this process has threads: it forks.
class Peer {
 public:
  Peer(int number, const Habit& habit) : number_(number), ends_(RawSocket::pair()) {
    child_ = fork();
    check(child_ >= 0, "fork");
    if (child_ == 0) live(habit);
    check(ends_.first.read(1) == "r", "a namespace of its own");
    const std::string net = "10.0." + std::to_string(number);
    shell("ip link add name " + device() + " type veth peer name p netns " +
          std::to_string(child_));
    shell("ip addr add " + net + ".1/24 dev " + device() + " && ip link set " + device() + " up");
    inside("ip addr add " + net + ".2/24 dev p");
    inside("ip link set p up");
  }
  ~Peer() {
    kill(child_, SIGKILL);
    waitpid(child_, nullptr, 0);
  }
  Peer(const Peer&) = delete;
  Peer& operator=(const Peer&) = delete;

  std::string ip() const { return "10.0." + std::to_string(number_) + ".2"; }
  void serve() const { ends_.first.send("0\n"); }
  /// Opens one more connection to us, from which it never reads.
  void dial(int port) const { ends_.first.send(std::to_string(port) + "\n"); }
  void signal(int number) const { kill(child_, number); }
  void ourEnd(const char* state) const { shell("ip link set " + device() + " " + state); }
  void inside(const std::string& command) const {
    shell("nsenter -t " + std::to_string(child_) + " -n " + command);
  }

 private:
  [[noreturn]] void live(const Habit& habit) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    try {
      check(unshare(CLONE_NEWNET) == 0, "unshare");
      ends_.second.send("r");
      for (std::vector<RawSocket> dialed;;) {
        const int port = nextPort();
        if (port == 0) servePeer(habit);
        dialed.push_back(dialServer("10.0." + std::to_string(number_) + ".1", port));
      }
    } catch (const std::exception& error) {
      std::fprintf(stderr, "peer %d: %s\n", number_, error.what());
      _exit(EXIT_FAILURE);
    }
  }
  int nextPort() const {
    std::string line;
    while (line.empty() || line.back() != '\n') line += ends_.second.read(1);
    return std::stoi(line);
  }
  std::string device() const { return "v" + std::to_string(number_); }
  static void shell(const std::string& command) {
    check(std::system(command.c_str()) == 0, command.c_str());
  }

  const int number_;
  std::pair<RawSocket, RawSocket> ends_;
  pid_t child_ = -1;
};

}  // namespace test
