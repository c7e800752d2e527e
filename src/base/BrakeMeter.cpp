#include "base/BrakeMeter.h"

#include <algorithm>
#include <utility>

namespace velmora {

BrakeMeter::BrakeMeter(std::int64_t chunkBytes, std::int64_t bufferCount, std::vector<std::optional<double>> linkMBps,
                       double windowSeconds)
    // A queue shorter than this means that an element keeps up.
    : threshold_(
          std::min(static_cast<double>(std::max<std::int64_t>(bufferCount, 1)) * static_cast<double>(chunkBytes) * 0.5,
                   static_cast<double>(chunkBytes) * 2)),
      windowSeconds_(windowSeconds), linkMBps_(std::move(linkMBps)) {}

std::optional<Brake> BrakeMeter::add(double seconds, std::int64_t readBytes,
                                     const std::vector<std::int64_t>& writtenBytes) {
    if (!samples_.empty() &&
        (samples_.back().written.size() != writtenBytes.size() || seconds < samples_.back().seconds))
        samples_.clear();
    samples_.push_back({seconds, readBytes, writtenBytes});
    while (samples_.size() > 2 && seconds - samples_.front().seconds > windowSeconds_)
        samples_.pop_front();
    const double span = seconds - samples_.front().seconds;
    if (samples_.size() < 2 || span <= 0 || span < windowSeconds_ / 2)
        return std::nullopt;
    return brakeOf(slowest(), span);
}

// The destination with the largest mean lag, if that is a real queue; of equal ones, the one that lags more now.
std::size_t BrakeMeter::slowest() const {
    const auto lag = [](const Sample& s, std::size_t i) { return static_cast<double>(s.read - s.written[i]); };
    std::size_t element = 0;
    std::pair<double, double> most{threshold_, 0.0};
    for (std::size_t i = 0; i < samples_.back().written.size(); ++i) {
        double sum = 0;
        for (const Sample& sample : samples_)
            sum += lag(sample, i);
        const std::pair<double, double> here{sum / static_cast<double>(samples_.size()), lag(samples_.back(), i)};
        if (here.first >= threshold_ && (element == 0 || here > most)) {
            most = here;
            element = i + 1;
        }
    }
    return element;
}

std::optional<Brake> BrakeMeter::brakeOf(std::size_t element, double span) const {
    const auto moved = [&](const Sample& s) { return element == 0 ? s.read : s.written[element - 1]; };
    const std::int64_t bytes = moved(samples_.back()) - moved(samples_.front());
    if (bytes <= 0)
        return std::nullopt;
    Brake brake{static_cast<std::int64_t>(element), static_cast<double>(bytes) / span / 1e6, std::nullopt};
    if (element < linkMBps_.size() && linkMBps_[element] && *linkMBps_[element] > 0)
        brake.utilization = brake.mbps / *linkMBps_[element];
    return brake;
}

} // namespace velmora
