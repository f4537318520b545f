#pragma once
// What the project's pictures have in common: the paper's colours and round scales.

#include <cmath>

/// A style sheet for paper, grid, frames and texts, with a second set for viewers that prefer dark; each picture adds
/// one for what it draws.
inline constexpr const char* PICTURE_STYLE = R"(<style>
  svg { font: 12px sans-serif }
  .paper { fill: #ffffff } .grid { stroke: #d8dde3; stroke-width: 1 } .frame { stroke: #7a8594; fill: none }
  text { fill: #2b333d } .title { font-size: 15px; font-weight: bold } .unit { fill: #5b6672 }
  @media (prefers-color-scheme: dark) {
    .paper { fill: #14181d } .grid { stroke: #313a45 } .frame { stroke: #8592a3 }
    text { fill: #dbe2ea } .unit { fill: #9aa6b4 }
  }
</style>
)";

/// 1, 2 or 5 times a power of ten, so that a span above 0 has about `count` of them and no more.
inline double roundStep(double span, int count)
{
    const double rough = span / count;
    const double power = std::pow(10, std::floor(std::log10(rough)));
    const double digit = rough / power;
    return power * (digit <= 1 ? 1 : digit <= 2 ? 2 : digit <= 5 ? 5 : 10);
}
