#include "basic_client_interface.h"

#include <algorithm>

#include "message_framing.h"

namespace brix {
namespace {

constexpr double kReadSliceMs = 50;

}  // namespace

BasicClientInterface::BasicClientInterface() : delimiter(kDelimiter), logFlag(true) {}

BasicClientInterface::~BasicClientInterface() = default;

void BasicClientInterface::sendMsg(const char* /*data*/, int /*len*/) {}

int BasicClientInterface::recieveMsg(char* /*buf*/, int /*len*/) {
  return 0;
}

bool BasicClientInterface::waitReadable(double /*ms*/) {
  return true;
}

bool BasicClientInterface::recieveMsgWithin(double ms, std::string& chunk) {
  chunk.clear();
  if (!waitReadable(std::min(ms, kReadSliceMs))) return true;
  chunk = recieveMsg();
  return !chunk.empty();
}

void BasicClientInterface::wakeReader() {}

std::size_t BasicClientInterface::sendAtOnce(const char* /*data*/, std::size_t /*size*/) {
  return 0;
}

bool BasicClientInterface::joinsTexts() const {
  return false;
}

void BasicClientInterface::setSafetyOptions(const ClientSafetyOptions& /*options*/) {}

}  // namespace brix
