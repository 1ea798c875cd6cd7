#pragma once
#include "platform/TaskScheduler.h"

namespace agent {

/// Of tasks that wait until all tasks of the library that are due have run.
inline constexpr platform::TaskPriority afterAll = 255;

}  // namespace agent
