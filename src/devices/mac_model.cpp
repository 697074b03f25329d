#include "devices/mac_model.hpp"

#include <array>

#include "core/enum_text.hpp"

namespace quorel {

namespace {
constexpr EnumTextTable<MacModel, 8> kCaseNames{{{
    {MacModel::macBookPro, "macBookPro"},
    {MacModel::macBookAir, "macBookAir"},
    {MacModel::macBookNeo, "macBookNeo"},
    {MacModel::macStudio, "macStudio"},
    {MacModel::macPro, "macPro"},
    {MacModel::macMini, "macMini"},
    {MacModel::iMac, "iMac"},
    {MacModel::unknown, "unknown"},
}}};

constexpr EnumTextTable<MacModel, 8> kDisplayNames{{{
    {MacModel::macBookPro, "MacBook Pro"},
    {MacModel::macBookAir, "MacBook Air"},
    {MacModel::macBookNeo, "MacBook Neo"},
    {MacModel::macStudio, "Mac Studio"},
    {MacModel::macPro, "Mac Pro"},
    {MacModel::macMini, "Mac mini"},
    {MacModel::iMac, "iMac"},
    {MacModel::unknown, "Mac"},
}}};

struct ModelFacts {
  MacModel model;
  std::optional<double> maxLoadW;
  bool desktop;
};
constexpr std::array<ModelFacts, 7> kFacts{{
    {MacModel::macBookPro, 140.0, false},
    {MacModel::macBookAir, 35.0, false},
    {MacModel::macBookNeo, 30.0, false},
    {MacModel::macStudio, 270.0, true},
    {MacModel::macPro, 370.0, true},
    {MacModel::macMini, 155.0, true},
    {MacModel::iMac, 143.0, true},
}};

// Unknown, or a value without a case, has no facts: no load figure and not a desktop.
const ModelFacts* facts(MacModel model) {
  for (const auto& f : kFacts) {
    if (f.model == model) return &f;
  }
  return nullptr;
}
}  // namespace

std::string_view displayName(MacModel model) {
  return kDisplayNames.text(model, "Mac");
}

std::string_view toString(MacModel model) {
  return kCaseNames.text(model, "unknown");
}

std::optional<MacModel> macModelFromString(std::string_view caseName) {
  return kCaseNames.parse(caseName);
}

std::optional<double> maxLoadW(MacModel model) {
  const ModelFacts* f = facts(model);
  return f ? f->maxLoadW : std::nullopt;
}

bool isDesktop(MacModel model) {
  const ModelFacts* f = facts(model);
  return f && f->desktop;
}

}  // namespace quorel
