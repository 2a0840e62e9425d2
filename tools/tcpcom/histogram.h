// Histograms as a picture.
#pragma once

#include <string>
#include <vector>

#include "statistics.h"

namespace tcpcom {

struct Histogram {
  std::string title;  ///< plain text
  const Statistics* valuesMs;
};

/// @return an SVG document with one histogram below the other; those without values are left out
std::string drawHistograms(const std::vector<Histogram>& histograms);

}  // namespace tcpcom
