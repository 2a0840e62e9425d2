#include "basic_server_interface.h"

#include "atomic_access.h"
#include "message_framing.h"

namespace brix {
namespace {

constexpr double kDefaultRateMs = 0.5;

}  // namespace

BasicServerInterface::BasicServerInterface()
    : delimiter(kDelimiter), sendRate(kDefaultRateMs), recvRate(kDefaultRateMs) {}

BasicServerInterface::~BasicServerInterface() = default;

void BasicServerInterface::setSendRate(double rate) {
  atomicStore(sendRate, rate);
}

void BasicServerInterface::setRecvRate(double rate) {
  atomicStore(recvRate, rate);
}

bool BasicServerInterface::releaseAble() {
  return true;
}

}  // namespace brix
