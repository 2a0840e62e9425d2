#include "basic_client_interface.h"

#include "message_framing.h"

namespace brix {

BasicClientInterface::BasicClientInterface() : delimiter(kDelimiter), logFlag(true) {}

BasicClientInterface::~BasicClientInterface() = default;

void BasicClientInterface::sendMsg(const char* /*data*/, int /*len*/) {}

int BasicClientInterface::recieveMsg(char* /*buf*/, int /*len*/) {
  return 0;
}

bool BasicClientInterface::waitReadable(double /*ms*/) {
  return true;
}

void BasicClientInterface::setSafetyOptions(const ClientSafetyOptions& /*options*/) {}

}  // namespace brix
