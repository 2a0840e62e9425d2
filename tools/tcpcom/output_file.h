// A file that the run writes, so that the run can end meanwhile.
#pragma once

#include <string>

#include "descriptor.h"
#include "run.h"

namespace tcpcom {

class OutputFile {
 public:
  /// Replaces an existing file; of a named pipe, waits for the reader.
  /// @throws Failure  if it cannot be opened, or as the run ends
  OutputFile(const Run& run, const std::string& path);

  /// Writes at once, so that nothing is lost however the run ends.
  /// @throws Failure  if it cannot be written
  void write(const std::string& bytes) const;

 private:
  const Run& run_;
  const std::string name_;
  Descriptor file_;
};

}  // namespace tcpcom
