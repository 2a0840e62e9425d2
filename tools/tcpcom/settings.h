// What all subcommands are told alike.
#pragma once

namespace tcpcom {

struct Settings {
  bool json = false;
  bool raw = false;
  bool quiet = false;
  bool verbose = false;
  double runS = 0;  ///< 0: no bound
  double connectTimeoutS = 3;
  double replyTimeoutS = 3;
  int retries = 0;
};

}  // namespace tcpcom
