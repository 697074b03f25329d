#pragma once
// The school grade a habit score earns, and the factors that stand behind it.

#include <map>
#include <string>
#include <string_view>

#include "core/enum_text.hpp"

namespace quorel {

// In scale order, worst first: a grade's position is its index on the history chart.
enum class HabitGrade { F, dMinus, d, dPlus, cMinus, c, cPlus, bMinus, b, bPlus, aMinus, a, aPlus };

inline constexpr EnumTextTable<HabitGrade, 13> kHabitGradeTexts{{{
    {HabitGrade::F, "F"},
    {HabitGrade::dMinus, "D-"},
    {HabitGrade::d, "D"},
    {HabitGrade::dPlus, "D+"},
    {HabitGrade::cMinus, "C-"},
    {HabitGrade::c, "C"},
    {HabitGrade::cPlus, "C+"},
    {HabitGrade::bMinus, "B-"},
    {HabitGrade::b, "B"},
    {HabitGrade::bPlus, "B+"},
    {HabitGrade::aMinus, "A-"},
    {HabitGrade::a, "A"},
    {HabitGrade::aPlus, "A+"},
}}};

// Factor name to its display text: the four scores as "<score>/100" and the confidence text.
using HabitFactors = std::map<std::string, std::string>;

inline constexpr std::string_view kChargeDepthFactor = "Charge Depth";
inline constexpr std::string_view kTemperatureFactor = "Temperature";
inline constexpr std::string_view kHighSocFactor = "High SoC Exposure";
inline constexpr std::string_view kCyclePatternFactor = "Cycle Pattern";
inline constexpr std::string_view kDataConfidenceFactor = "Data Confidence";

}  // namespace quorel
