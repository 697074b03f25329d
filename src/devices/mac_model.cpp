#include "devices/mac_model.hpp"

#include <array>

namespace quorel {

namespace {
struct ModelFacts {
  MacModel model;
  std::string_view name;
  std::string_view displayName;
  std::optional<double> maxLoadW;
  bool desktop;
};
constexpr std::array<ModelFacts, 8> kModels{{
    {MacModel::macBookPro, "macBookPro", "MacBook Pro", 140.0, false},
    {MacModel::macBookAir, "macBookAir", "MacBook Air", 35.0, false},
    {MacModel::macBookNeo, "macBookNeo", "MacBook Neo", 30.0, false},
    {MacModel::macStudio, "macStudio", "Mac Studio", 270.0, true},
    {MacModel::macPro, "macPro", "Mac Pro", 370.0, true},
    {MacModel::macMini, "macMini", "Mac mini", 155.0, true},
    {MacModel::iMac, "iMac", "iMac", 143.0, true},
    {MacModel::unknown, "unknown", "Mac", std::nullopt, false},
}};

const ModelFacts& facts(MacModel model) {
  return kModels[static_cast<std::size_t>(model)];
}
}  // namespace

std::string_view displayName(MacModel model) {
  return facts(model).displayName;
}
std::string_view toString(MacModel model) {
  return facts(model).name;
}
std::optional<double> maxLoadW(MacModel model) {
  return facts(model).maxLoadW;
}
bool isDesktop(MacModel model) {
  return facts(model).desktop;
}

std::optional<MacModel> macModelFromString(std::string_view caseName) {
  for (const auto& f : kModels) {
    if (f.name == caseName) return f.model;
  }
  return std::nullopt;
}

}  // namespace quorel
