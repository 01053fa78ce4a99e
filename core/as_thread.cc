// Thread registration: the thread mask, and step "RegThread", which names the
// selected worker threads after the instance and registers them with the EAL.
#include <bit>
#include <cstdarg>
#include <cstring>

#include "core/as_reg.h"

namespace {

constexpr uint32_t kMaxKinds = QOV_EAL_THREAD_KIND_NUM;
constexpr uint32_t kMaskBits = 32;

// The worker threads in kind order: id, name suffix, attribute (there is no 2).
constexpr QOV_EAL_ThreadPara kThreadTable[] = {
    {QOV_EAL_THREAD_DATA, "_DATA", 0},
    {QOV_EAL_THREAD_SYNC, "_SYNC", 1},
    {QOV_EAL_THREAD_EVENT, "_EVENT", 3},
};
constexpr uint32_t kThreadTableNum = sizeof kThreadTable / sizeof kThreadTable[0];

// The row's name, bounded by its field.
size_t RowNameLen(const QOV_EAL_ThreadPara &row) { return strnlen(row.threadName, sizeof row.threadName); }

void AppendRow(ASOrchHandle *hdl, const QOV_EAL_ThreadPara &row, QOV_EAL_ThreadPara *out, uint32_t *num) {
    out[(*num)++] = row;
    QOV_AUTOSYNC_QovLog(AS_LOG_INFO, "%s, thread %.*s id is %u", hdl->name, static_cast<int>(RowNameLen(row)),
                        row.threadName, row.threadId);
}

uint32_t ASOrchSetThreadName(const char *orchName, QOV_EAL_ThreadPara *rows, uint32_t rowNum) {
    if (rowNum == 0) return 0;
    if (orchName == nullptr || rows == nullptr) return 1;
    size_t nameLen = strnlen(orchName, AS_THREAD_NAME_LEN);
    for (uint32_t i = 0; i < rowNum; ++i) {
        QOV_EAL_ThreadPara &row = rows[i];
        size_t suffixLen = RowNameLen(row);
        // The suffix must be terminated in its field, and the whole must fit with its NUL.
        if (suffixLen >= sizeof row.threadName || nameLen + suffixLen > AS_THREAD_NAME_LEN - 1) return 1;
        char buf[AS_THREAD_NAME_LEN] = {};
        if (strcpy_s(buf, sizeof buf, orchName) != 0 || strcat_s(buf, sizeof buf, row.threadName) != 0) return 1;
        if (memcpy_s(row.threadName, sizeof row.threadName, buf, sizeof buf) != 0) return 1;
    }
    return 0;
}

uint32_t ASOrchRegThreadBase(ASOrchHandle *hdl, const ASOrchBasePara *para, const QOV_EAL_ThreadPara *rows,
                             uint32_t rowNum) {
    QOV_EAL_ThreadPara out[kMaxKinds] = {};
    uint32_t num = 0;
    if (rowNum != 0 && rows != nullptr) {
        uint32_t further = rowNum - 1 < kMaxKinds - 1 ? rowNum - 1 : kMaxKinds - 1;
        if ((para->threadMask & AS_THREAD_BIT_DATA) != 0) AppendRow(hdl, rows[0], out, &num);
        if (further >= 1 && (para->threadMask & AS_THREAD_BIT_SYNC) != 0) AppendRow(hdl, rows[1], out, &num);
        if (further >= 2 && (para->threadMask & AS_THREAD_BIT_EVENT) != 0) AppendRow(hdl, rows[2], out, &num);
    }
    if (QOV_EAL_RegThread(hdl->ealHdl, out, num) != 0) {
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "%s, register %u threads fail", hdl->name, num);
        return 1;
    }
    hdl->threadMask = para->threadMask;
    QOV_AUTOSYNC_QovLog(AS_LOG_INFO, "%s, register %u threads ok", hdl->name, num);
    return 0;
}

}  // namespace

extern "C" QOV_AS_API uint32_t ASOrchThreadSet(uint32_t *mask, uint32_t count, ...) {
    if (mask == nullptr || count == 0 || count > kMaxKinds) return 1;
    va_list ap;
    va_start(ap, count);
    uint32_t bits = 0;
    bool badKind = false;
    for (uint32_t i = 0; i < count; ++i) {
        uint32_t kind = va_arg(ap, uint32_t);
        if (kind >= kMaskBits) badKind = true;
        else bits |= 1u << kind;
    }
    va_end(ap);
    if (badKind || static_cast<uint32_t>(std::popcount(bits)) != count) return 1;
    *mask = bits;
    return 0;
}

uint32_t ASOrchRegThread(ASOrchHandle *hdl, const ASOrchBasePara *para) {
    if ((para->threadMask & AS_THREAD_BIT_DATA) == 0) {
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "%s, set threads fail, has not Data thread", hdl->name);
        return 1;
    }
    QOV_EAL_ThreadPara rows[kThreadTableNum];
    if (memcpy_s(rows, sizeof rows, kThreadTable, sizeof kThreadTable) != 0 ||
        ASOrchSetThreadName(hdl->name, rows, kThreadTableNum) != 0) {
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "%s, set threads name fail", hdl->name);
        return 1;
    }
    return ASOrchRegThreadBase(hdl, para, rows, kThreadTableNum);
}

