// Standard input and files, read so that the run can end meanwhile.
#pragma once

#include <optional>
#include <string>

#include "run.h"

namespace tcpcom {

/// Reads all of standard input.
/// @throws Failure  as the run ends
std::string readStandardInput(const Run& run);

/// @throws Failure  with Usage if the file cannot be read, or as the run ends
std::string readFile(const Run& run, const std::string& path);

/// Cuts what is read into lines; the last one may lack its end. A CR before the end is dropped.
class LineCutter {
 public:
  /// Reads once.
  /// @return false at the end of the input
  bool readFrom(int fd);

  /// @return the next complete line; at the end of the input also an unfinished one
  std::optional<std::string> next();

 private:
  std::string buffer_;
  std::size_t begin_ = 0;
  std::size_t searched_ = 0;  // no line ends before it
  bool over_ = false;
};

}  // namespace tcpcom
