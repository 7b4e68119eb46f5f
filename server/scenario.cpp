#include "server/scenario.h"

#include <exception>
#include <fstream>
#include <sstream>

namespace qv::server {

bool SameHost(std::u16string_view a, std::u16string_view b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i) {
    auto lower = [](char16_t c) { return c >= u'A' && c <= u'Z' ? char16_t(c - u'A' + u'a') : c; };
    if (lower(a[i]) != lower(b[i])) return false;
  }
  return true;
}

const Kit* Scenario::FindKit(std::u16string_view host) const {
  for (const Kit& kit : kits) {
    if (SameHost(kit.host, host)) return &kit;
  }
  return nullptr;
}

ScenarioResult LoadScenarioFile(const std::string& path) noexcept {
  try {
    std::ifstream file(path, std::ios::binary);
    if (!file) return {std::nullopt, path + ": cannot be opened"};
    std::ostringstream text;
    text << file.rdbuf();
    if (file.bad()) return {std::nullopt, path + ": cannot be read"};
    return ParseScenario(text.str(), path);
  } catch (const std::exception& error) {
    return {std::nullopt, path + ": " + error.what()};
  }
}

Scenario DefaultScenario() {
  Scenario scenario;
  Kit alpha;
  alpha.host = u"devkit-alpha";
  alpha.name = u"Alpha";
  alpha.mac = {0x00, 0x1a, 0x7d, 0x00, 0x00, 0x01};
  alpha.power = PowerStatus::kOn;
  alpha.is_default = true;
  alpha.address = u"192.168.40.11";
  Kit beta;
  beta.host = u"devkit-beta";
  beta.name = u"Beta";
  beta.mac = {0x00, 0x1a, 0x7d, 0x00, 0x00, 0x02};
  beta.power = PowerStatus::kOff;
  beta.address = u"192.168.40.12";
  Kit unreachable;
  unreachable.host = u"192.168.40.99";
  unreachable.name = unreachable.host;
  unreachable.reachable = false;
  scenario.kits = {alpha, beta, unreachable};
  return scenario;
}

#ifndef VEKX_SERVER_HAVE_YAML
ScenarioResult ParseScenario(const std::string&, const std::string& file_name) noexcept {
  return {std::nullopt, file_name +
                            ": this vesta-kx was built without yaml-cpp and reads no scenario "
                            "files; start it without --scenario for the built-in kits"};
}
#endif

}  // namespace qv::server
