// The levels of QOV_AUTOSYNC_QovLog: 0 progress and success, 1 failure. Every
// floor may include this, the merge queue too.
#ifndef QOV_AS_CORE_BASE_LOG_LEVEL_H
#define QOV_AS_CORE_BASE_LOG_LEVEL_H

#include <cstdint>

constexpr uint32_t AS_LOG_INFO = 0;
constexpr uint32_t AS_LOG_ERR = 1;

#endif
