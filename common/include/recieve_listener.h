/// @file
/// Listener of received messages.
#pragma once

#include <string>

#include "tcp_com_export.h"

namespace brix {

/// Receives complete messages. The object that it is attached to never owns it.
class TCP_COM_API iRecieveListener {
 public:
  virtual ~iRecieveListener() = default;

  /// @param msg  one message, without its delimiter
  virtual void onReceive(const std::string& msg) = 0;
};

}  // namespace brix
