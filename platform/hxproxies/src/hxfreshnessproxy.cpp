#include <hxcommon/hxproxy.h>
#include <hxproxies/hxfreshnessproxy.h>

#include <stdexcept>
#include <utility>

namespace HX {
namespace {

using Seconds = std::chrono::duration<double>;

HXFreshnessProxy::Duration toDuration(const HXValue& seconds) {
  return std::chrono::duration_cast<HXFreshnessProxy::Duration>(Seconds(seconds.toDouble()));
}

}  // namespace

HXFreshnessProxy::HXFreshnessProxy(std::shared_ptr<HXProxy> proxy) : proxy_(std::move(proxy)) {
  if (!proxy_) throw std::runtime_error("This object is null");
}

void HXFreshnessProxy::expect(const std::string& key, Duration limit) {
  proxy_->call("expect", key, Seconds(limit).count());
}

void HXFreshnessProxy::expect(const std::map<std::string, Duration>& limits) {
  std::map<std::string, double> seconds;
  for (const auto& [key, limit] : limits) seconds.emplace(key, Seconds(limit).count());
  proxy_->call("expectAll", seconds);
}

bool HXFreshnessProxy::forget(const std::string& key) { return proxy_->call<bool>("forget", key); }

std::vector<HXFreshnessProxy::Standing> HXFreshnessProxy::expectations() {
  const auto answer = proxy_->call<HXValue>("expectations");
  std::vector<Standing> all;
  all.reserve(answer.getSize());
  for (std::size_t i = 0; i < answer.getSize(); ++i) {
    const HXValue& one = answer[i];
    all.push_back({one[0].asString(), toDuration(one[1]), toDuration(one[2]), one[3].asBool()});
  }
  return all;
}

}  // namespace HX
