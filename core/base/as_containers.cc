// Intrusive ring list and integer hash, and the bounded name concatenation.
#include <cstring>

#include "qov_as_core.h"
#include "qov_utils_base.h"

extern "C" {

QOV_AS_API void ASListInit(ASList *head) {
    if (head != nullptr) head->next = head;
}

QOV_AS_API void ASListInsert(ASList *head, ASList *elem) {
    if (head == nullptr || elem == nullptr) return;
    elem->next = head->next;
    head->next = elem;
}

QOV_AS_API ASIntHash *ASIntHashCreate(uint64_t bucketNum, ASOrchMemAllocFunc memAlloc) {
    // The block size must fit the allocator's 32-bit byte count.
    constexpr uint64_t kMaxBuckets = (UINT32_MAX - sizeof(ASIntHash)) / sizeof(ASList);
    if (bucketNum == 0 || bucketNum > kMaxBuckets || memAlloc == nullptr) return nullptr;
    auto size = static_cast<uint32_t>(sizeof(ASIntHash) + bucketNum * sizeof(ASList));
    auto *hash = static_cast<ASIntHash *>(memAlloc(size));
    if (hash == nullptr) return nullptr;
    hash->bucketNum = bucketNum;
    for (uint64_t i = 0; i < bucketNum; ++i) ASListInit(&hash->bucket[i]);
    return hash;
}

QOV_AS_API ASIntHashNode *ASIntHashFind(const ASIntHash *hash, uint32_t key) {
    if (hash == nullptr || hash->bucketNum == 0) return nullptr;
    const ASList *head = &hash->bucket[key % hash->bucketNum];
    for (ASList *l = head->next; l != head; l = l->next) {
        auto *node = reinterpret_cast<ASIntHashNode *>(l);
        if (node->key == key) return node;
    }
    return nullptr;
}

QOV_AS_API uint32_t ASIntHashAdd(ASIntHash *hash, ASIntHashNode *node) {
    if (hash == nullptr || node == nullptr || hash->bucketNum == 0) return 1;
    if (ASIntHashFind(hash, node->key) != nullptr) return 1;
    ASListInsert(&hash->bucket[node->key % hash->bucketNum], &node->link);
    return 0;
}

QOV_AS_API uint32_t ASIntHashWalk(ASIntHash *hash, ASIntHashVisitFunc visit, void *usrData) {
    if (hash == nullptr || visit == nullptr) return 0;
    for (uint64_t i = 0; i < hash->bucketNum; ++i) {
        ASList *head = &hash->bucket[i];
        for (ASList *l = head->next, *next; l != head; l = next) {
            next = l->next;  // the visit may release the node
            if (visit(reinterpret_cast<ASIntHashNode *>(l), usrData) != 0) return 1;
        }
    }
    return 0;
}

QOV_AS_API void ASIntHashDelete(ASIntHash *hash) {
    // The table keeps no resources of its own beyond the block its owner
    // allocated; the owner releases block and nodes.
    (void)hash;
}

QOV_AS_API uint32_t ASCombineName(char *dst, uint32_t dstSize, const char *first, const char *second) {
    if (dst == nullptr || first == nullptr || second == nullptr) return 1;
    size_t len1 = strnlen(first, dstSize);
    if (len1 >= dstSize) return 1;
    size_t len2 = strnlen(second, dstSize - len1);
    if (len2 >= dstSize - len1) return 1;  // lengths plus terminator exceed the size
    if (strcpy_s(dst, dstSize, first) != 0) return 1;
    if (strcat_s(dst + len1, dstSize - len1, second) != 0) return 1;
    return 0;
}

}  // extern "C"
