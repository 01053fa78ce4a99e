// Creation of the Orch autosync handle: checks, the registry entry, the
// handle from the caller's memAlloc, the orch id and the EAL instance.
#include <cstring>

#include "core/base/as_handle.h"
#include "core/base/as_registry.h"
#include "qov_utils_base.h"
#include "qov_utils_eal.h"


namespace {

// Both memory functions are given and the name fits the handle's field.
bool ASNameCreatCheckValid(const char *name, const ASOrchCreatePara *para) {
    if (para->memAlloc == nullptr || para->memFree == nullptr) return false;
    return strnlen(name, AS_ORCH_NAME_LEN) < AS_ORCH_NAME_LEN;
}

ASOrchHandle *ASOrchMallocHandle(const char *name, const ASOrchCreatePara *para) {
    auto *hdl = static_cast<ASOrchHandle *>(para->memAlloc(sizeof(ASOrchHandle)));
    if (hdl == nullptr) {
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "%s, Orch autosync Memory Alloc Fail", name);
        return nullptr;
    }
    if (memset_s(hdl, sizeof *hdl, 0, sizeof *hdl) != 0) {
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "%s, Orch autosync Memory Alloc Fail", name);
        para->memFree(hdl);
        return nullptr;
    }
    if (strcpy_s(hdl->name, sizeof hdl->name, name) != 0) {
        // "Excceeds" is the system's own spelling of this line.
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "%s, Orch autosync Name Excceeds", name);
        para->memFree(hdl);
        return nullptr;
    }
    hdl->memAlloc = para->memAlloc;
    hdl->memFree = para->memFree;
    hdl->ealCreateWord0 = para->ealCreateWord0;
    hdl->memPtNo = para->memPtNo;
    hdl->ealCreateWord1 = para->ealCreateWord1;
    hdl->ondemandParam = UINT64_MAX;
    QOV_AUTOSYNC_QovLog(AS_LOG_INFO, "%s, Create Orch autosync handle ok", hdl->name);
    return hdl;
}

uint32_t ASOrchGetOrchId(uint32_t *orchId) {
    COMP_VFUNC *table = nullptr;
    uint32_t ret = COMP_GetVTable(COMP_ID_ORCHPUB, COMP_SUBID_ORCHPUB, &table);
    if (ret != 0 || table == nullptr) {
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "failed to get orchpub vt table, ret = %u", ret);
        return 1;
    }
    auto getOrchId = reinterpret_cast<ORCHPUB_GET_ORCHID_FUNC>(table[ORCHPUB_VT_GET_ORCHID]);
    if (getOrchId == nullptr) {
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "getOrchIdBySlotAndCpu is null");
        return 1;
    }
    uint32_t slot = reinterpret_cast<ORCHPUB_GET_U32_FUNC>(table[ORCHPUB_VT_GET_SLOT])();
    uint32_t cpu = reinterpret_cast<ORCHPUB_GET_U32_FUNC>(table[ORCHPUB_VT_GET_CPU])();
    return getOrchId(slot, cpu, orchId);
}

uint32_t ASOrchCreateEal(ASOrchHandle *hdl) {
    uint32_t orchId = 0;
    if (ASOrchGetOrchId(&orchId) != 0) {
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "%s, get orch id error", hdl->name);
        return 1;
    }
    QOV_EAL_CreatePara para{};
    para.orchId = orchId;
    para.createWord0 = hdl->ealCreateWord0;
    para.createWord1 = hdl->ealCreateWord1;
    para.memAlloc = hdl->memAlloc;
    para.memFree = hdl->memFree;
    hdl->ealHdl = QOV_EAL_Create(hdl->name, &para);
    if (hdl->ealHdl == nullptr) {
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "%s, Create Orch autosync eal Fail", hdl->name);
        return 1;
    }
    QOV_AUTOSYNC_QovLog(AS_LOG_INFO, "%s, Create Orch autosync eal ok", hdl->name);
    return 0;
}

ASOrchHandle *ASOrchCreatHandle(const char *name, const ASOrchCreatePara *para) {
    ASOrchHandle *hdl = ASOrchMallocHandle(name, para);
    if (hdl == nullptr) return nullptr;
    if (ASOrchCreateEal(hdl) != 0) {
        para->memFree(hdl);
        return nullptr;
    }
    return hdl;
}

}  // namespace

extern "C" {

QOV_AS_API ASOrchHandle *ASOrchCreate(const char *name, const ASOrchCreatePara *para) {
    if (name == nullptr || para == nullptr) {
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "Create Orch autosync Fail, Param is Null");
        return nullptr;
    }
    if (!ASNameCreatCheckValid(name, para)) {
        // A line over 255 characters is dropped: a long name is shown by its start.
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "%.200s, Create Orch autosync Fail,check not valid", name);
        return nullptr;
    }
    if (AutoSyncAddModule(name, para->memAlloc) != 0) {
        QOV_AUTOSYNC_QovLog(AS_LOG_ERR, "%s, Create Orch autosync Fail, add module fail", name);
        return nullptr;
    }
    ASOrchHandle *hdl = ASOrchCreatHandle(name, para);
    if (hdl == nullptr) {
        AutoSyncDelModule(name, para->memFree);
        return nullptr;
    }
    QOV_AUTOSYNC_QovLog(AS_LOG_INFO, "%s, Orch autosync create success", hdl->name);
    return hdl;
}

}  // extern "C"
