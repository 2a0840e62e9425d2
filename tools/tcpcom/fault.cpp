#include "fault.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>

#include "status.h"

namespace tcpcom {
namespace {

enum class Unit { None, Time, Percent, Bytes };

struct FaultRow {
  const char* name;
  FaultKind kind;
  Unit unit;
  const char* byDefault;  // null: the value must be given
};

constexpr FaultRow kFaultRows[] = {
    {"silent", FaultKind::Silent, Unit::None, ""},
    {"delay", FaultKind::Delay, Unit::Time, nullptr},
    {"drop", FaultKind::Drop, Unit::Percent, nullptr},
    {"half-message", FaultKind::HalfMessage, Unit::None, ""},
    {"slow-read", FaultKind::SlowRead, Unit::Bytes, "1000"},
    {"close", FaultKind::Close, Unit::None, ""},
};

[[noreturn]] void refuse(const std::string& text, const std::string& why) {
  throw Failure(Status::Usage, "fault \"" + text + "\": " + why);
}

/// @return the number, with what stands behind it in `rest`; negative if there is none
double leadingNumber(const std::string& text, std::string& rest) {
  char* end = nullptr;
  const double value = std::strtod(text.c_str(), &end);
  rest = end;
  return end != text.c_str() && std::isfinite(value) ? value : -1;
}

double seconds(const std::string& text, const std::string& fault) {
  std::string unit;
  const double value = leadingNumber(text, unit);
  if (value < 0 || (unit != "s" && unit != "ms")) {
    refuse(fault, "\"" + text + "\" is no time such as 10s or 200ms");
  }
  return unit == "s" ? value : value / 1000;
}

double valueOf(Unit unit, const std::string& text, const std::string& fault) {
  std::string rest;
  const double value = leadingNumber(text, rest);
  switch (unit) {
    case Unit::Time:
      return seconds(text, fault);
    case Unit::Percent:
      if (value < 0 || value > 100 || rest != "%") refuse(fault, "needs a share such as 5%");
      return value / 100;
    case Unit::Bytes:
      if (value < 1 || !rest.empty()) refuse(fault, "needs a number of bytes a second from 1 up");
      return value;
    case Unit::None:
      if (!text.empty()) refuse(fault, "takes no value");
  }
  return 0;
}

}  // namespace

Fault parseFault(const std::string& text) {
  const auto at = text.find('@');
  const auto equals = text.substr(0, at).find('=');
  const std::string name = text.substr(0, std::min(at, equals));
  for (const FaultRow& row : kFaultRows) {
    if (name != row.name) continue;
    std::string value = row.byDefault != nullptr ? row.byDefault : "";
    if (equals != std::string::npos) value = text.substr(equals + 1, at - equals - 1);
    const double fromS = at == std::string::npos ? 0 : seconds(text.substr(at + 1), text);
    return {row.kind, valueOf(row.unit, value, text), fromS};
  }
  std::string names;
  for (const FaultRow& row : kFaultRows)
    names += (names.empty() ? "" : ", ") + std::string(row.name);
  refuse(text, "unknown; there are " + names);
}

const Fault* activeFault(const std::vector<Fault>& faults, FaultKind kind,
                         double secondsConnected) {
  for (const Fault& fault : faults) {
    if (fault.kind == kind && fault.fromS <= secondsConnected) return &fault;
  }
  return nullptr;
}

}  // namespace tcpcom
