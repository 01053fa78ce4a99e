// The module registry: the names of all live handles of the process.
#include <cstring>
#include <new>

#include "core/base/as_registry.h"
#include "qov_utils_base.h"

QOV_AS_API AutoSyncNameHead g_AutoSyncCtrlBlkNameHead = {0, nullptr};

namespace {

uint32_t AutoSyncSetNameNode(AutoSyncNameNode *node, const char *name) {
    int ret = strcpy_s(node->name, sizeof node->name, name);
    if (ret != 0) return static_cast<uint32_t>(ret);
    node->next = g_AutoSyncCtrlBlkNameHead.first;
    g_AutoSyncCtrlBlkNameHead.first = node;
    g_AutoSyncCtrlBlkNameHead.count++;
    return 0;
}

void AutoSyncDelNode(AutoSyncNameNode *prev, AutoSyncNameNode *node, ASOrchMemFreeFunc memFree) {
    if (prev == nullptr || node == nullptr) return;
    if (prev == node) {
        g_AutoSyncCtrlBlkNameHead.first = node->next;
    } else {
        prev->next = node->next;
    }
    g_AutoSyncCtrlBlkNameHead.count--;
    memFree(node);
}

}  // namespace

bool AutoSyncNameExisted(const char *name) {
    AutoSyncNameHead &head = g_AutoSyncCtrlBlkNameHead;
    const AutoSyncNameNode *node = head.first;
    for (uint32_t i = 0; i < head.count && node != nullptr; ++i, node = node->next) {
        if (std::strncmp(node->name, name, sizeof node->name) == 0) return true;
    }
    return false;
}

uint32_t AutoSyncAddModule(const char *name, ASOrchMemAllocFunc memAlloc) {
    if (AutoSyncNameExisted(name)) return 1;
    // A name the node cannot hold is refused before allocating: this operation
    // has no free function to give an unlinked node back.
    if (strnlen(name, AS_ORCH_NAME_LEN) >= AS_ORCH_NAME_LEN) return 1;
    auto *node = static_cast<AutoSyncNameNode *>(memAlloc(sizeof(AutoSyncNameNode)));
    if (node == nullptr) return 1;
    // Zero-filled by value-initialisation: nothing here could fail and strand
    // the node, which this operation could not give back.
    node = ::new (static_cast<void *>(node)) AutoSyncNameNode{};
    return AutoSyncSetNameNode(node, name) == 0 ? 0 : 1;
}

void AutoSyncDelModule(const char *name, ASOrchMemFreeFunc memFree) {
    AutoSyncNameNode *prev = g_AutoSyncCtrlBlkNameHead.first;
    for (AutoSyncNameNode *node = prev; node != nullptr; prev = node, node = node->next) {
        if (std::strncmp(node->name, name, sizeof node->name) == 0) {
            AutoSyncDelNode(prev, node, memFree);
            return;
        }
    }
}
