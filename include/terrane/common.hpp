#pragma once

// The whole public interface of TerraneCommon in one include.

#include "terrane/expected.hpp"
#include "terrane/export.hpp"
#include "terrane/feature/feature.hpp"
#include "terrane/feature/value.hpp"
#include "terrane/geometry/geometry.hpp"
#include "terrane/util/recursive_wrapper.hpp"
#include "terrane/util/variant.hpp"
