#include "port_holders.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>

#include "status.h"

namespace tcpcom {
namespace {

namespace fs = std::filesystem;

constexpr int kEstablished = 0x01, kTimeWait = 0x06, kListen = 0x0A;  // of /proc/net/tcp

struct Listening {
  std::string inode;
  std::string user;
};

/// One line: number, local address, remote address, state, queues, timer, retries, user, time-out,
/// inode.
void readLine(const std::string& line, int port, PortUse& use, std::vector<Listening>& listening) {
  std::istringstream fields(line);
  std::array<std::string, 10> field;
  for (std::string& one : field) fields >> one;
  const auto colon = field[1].rfind(':');
  if (!fields || colon == std::string::npos) return;  // the heading
  if (std::stoi(field[1].substr(colon + 1), nullptr, 16) != port) return;
  switch (std::stoi(field[3], nullptr, 16)) {
    case kListen:
      listening.push_back({field[9], field[7]});
      break;
    case kEstablished:
      ++use.connections;
      break;
    case kTimeWait:
      ++use.waiting;
      break;
    default:
      break;
  }
}

std::vector<Listening> readTables(int port, PortUse& use) {
  std::vector<Listening> listening;
  bool any = false;
  for (const char* table : {"/proc/net/tcp", "/proc/net/tcp6"}) {
    std::ifstream file(table);
    any = any || file.is_open();
    std::string line;
    std::getline(file, line);  // the heading
    while (std::getline(file, line)) readLine(line, port, use, listening);
  }
  if (!any) throw Failure(Status::Other, "cannot read /proc/net/tcp");
  return listening;
}

std::string processName(const fs::path& process) {
  std::ifstream file(process / "comm");
  std::string name;
  std::getline(file, name);
  return name + " (pid " + process.filename().string() + ")";
}

/// Other users' processes do not show their descriptors; then there is nothing to find.
bool holds(const fs::path& process, const std::string& socket) {
  std::error_code error;
  fs::directory_iterator entries(process / "fd", error), end;
  for (; !error && entries != end; entries.increment(error)) {
    std::error_code gone;
    if (fs::read_symlink(entries->path(), gone).string() == socket) return true;
  }
  return false;
}

std::vector<std::string> holdersOf(const std::string& inode) {
  std::vector<std::string> holders;
  std::error_code error;
  fs::directory_iterator entries("/proc", error), end;
  for (; !error && entries != end; entries.increment(error)) {
    const std::string name = entries->path().filename().string();
    if (name.find_first_not_of("0123456789") != std::string::npos) continue;
    if (holds(entries->path(), "socket:[" + inode + "]")) {
      holders.push_back(processName(entries->path()));
    }
  }
  return holders;
}

}  // namespace

PortUse portUse(int port) {
  PortUse use;
  for (const Listening& one : readTables(port, use)) {
    auto holders = holdersOf(one.inode);
    if (holders.empty()) {
      holders.push_back("a process of user " + one.user + " that only root may look into");
    }
    use.listeners.insert(use.listeners.end(), holders.begin(), holders.end());
  }
  std::sort(use.listeners.begin(), use.listeners.end());
  use.listeners.erase(std::unique(use.listeners.begin(), use.listeners.end()), use.listeners.end());
  return use;
}

}  // namespace tcpcom
