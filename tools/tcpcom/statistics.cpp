#include "statistics.h"

#include <algorithm>
#include <cmath>
#include <numeric>

namespace tcpcom {

double Statistics::mean() const {
  if (values_.empty()) return 0;
  return std::accumulate(values_.begin(), values_.end(), 0.0) / static_cast<double>(count());
}

double Statistics::deviation() const {
  if (values_.empty()) return 0;
  const double middle = mean();
  double sum = 0;
  for (const double value : values_) sum += (value - middle) * (value - middle);
  return std::sqrt(sum / static_cast<double>(count()));
}

double Statistics::percentile(double percent) const {
  if (values_.empty()) return 0;
  const auto rank =
      static_cast<std::size_t>(std::ceil(percent / 100 * static_cast<double>(count())));
  std::vector<double> values = values_;
  const auto place = values.begin() + static_cast<std::ptrdiff_t>(rank > 0 ? rank - 1 : 0);
  std::nth_element(values.begin(), place, values.end());
  return *place;
}

}  // namespace tcpcom
