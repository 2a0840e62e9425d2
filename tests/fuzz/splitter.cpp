// The splitter against its model, however the stream is chunked; a chunk "\x01X" makes X the
// delimiter from there on.

#include "fuzz.h"
#include "message_framing.h"
#include "message_splitter.h"

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const fuzz::Input input(data, size, 4096);
  brix::MessageSplitter splitter;
  fuzz::Messages split, decoded;
  std::string delimiter = brix::kDelimiter, buffer;
  fuzz::Model model, unlimited;
  model.maxBytes = input.options;
  for (const std::string& chunk : input.chunks) {
    if (chunk[0] == '\x01') {
      delimiter = chunk.substr(1, 4);
      continue;
    }
    splitter.feed(chunk.data(), chunk.size(), split, delimiter);
    const bool fits = !brix::exceeds(model.maxBytes, splitter.buffer());
    if (!fits) splitter.clear();
    fuzz::require(model.feed(chunk, delimiter) == fits, "limit of an unfinished message");
    fuzz::require(splitter.buffer() == model.tail, "unfinished message of the splitter");
    if (delimiter.empty()) continue;  // means the whole buffer here, and the chunk above
    unlimited.feed(chunk, delimiter);
    brix::decodeMsgs(buffer += chunk, decoded, delimiter);
    fuzz::require(buffer == unlimited.tail, "unfinished message of decodeMsgs");
  }
  fuzz::require(split == model.msgs, "messages of the splitter");
  fuzz::require(decoded == unlimited.msgs, "messages of decodeMsgs");
  return 0;
}
