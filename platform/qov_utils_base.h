/* Operations of the platform's base utility library (libqov_utils_base) that
 * libqov_autosync_orch calls: bounded memory and string operations, the
 * diagnostic log writer, the component function-table lookup, event
 * descriptors, the keyed hash table and the ordered tree. */
#ifndef QOV_UTILS_BASE_H
#define QOV_UTILS_BASE_H

#include <stdarg.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define QOV_PLAT_API __attribute__((visibility("default")))

/* ---- Bounded memory and string operations ----
 * Each takes the destination's size and never writes past it. Results: 0 on
 * success and non-zero on failure (memcpy_s, memset_s, strcpy_s, strcat_s);
 * the number of characters written, or negative on failure (sprintf_s,
 * vsprintf_s). On failure a non-null destination of non-zero size holds an
 * empty string (string operations) or is left as it was (memory operations). */
QOV_PLAT_API int memcpy_s(void *dest, size_t destMax, const void *src, size_t count);
QOV_PLAT_API int memset_s(void *dest, size_t destMax, int c, size_t count);
QOV_PLAT_API int strcpy_s(char *dest, size_t destMax, const char *src);
QOV_PLAT_API int strcat_s(char *dest, size_t destMax, const char *src);
QOV_PLAT_API int sprintf_s(char *dest, size_t destMax, const char *format, ...)
    __attribute__((format(printf, 3, 4)));
QOV_PLAT_API int vsprintf_s(char *dest, size_t destMax, const char *format, va_list ap)
    __attribute__((format(printf, 3, 0)));

/* ---- Diagnostic log ----
 * Writes text, already formatted, as one line of the diagnostic log under the
 * module tag. */
QOV_PLAT_API void KRT_DiagLogWrite(const char *module, const char *text);

/* ---- Component function tables ----
 * Stores in *table the function table of the component pair; 0 on success,
 * an error code otherwise. Entries are called through casts to their own
 * types. The orchpub table (1000, 1003): entry 2 slot, entry 3 CPU,
 * entry 18 getOrchIdBySlotAndCpu. */
typedef void (*COMP_VFUNC)(void);
QOV_PLAT_API uint32_t COMP_GetVTable(uint32_t compId, uint32_t subCompId, COMP_VFUNC **table);

#define COMP_ID_ORCHPUB 1000u
#define COMP_SUBID_ORCHPUB 1003u
#define ORCHPUB_VT_GET_SLOT 2u
#define ORCHPUB_VT_GET_CPU 3u
#define ORCHPUB_VT_GET_ORCHID 18u
typedef uint32_t (*ORCHPUB_GET_U32_FUNC)(void);
typedef uint32_t (*ORCHPUB_GET_ORCHID_FUNC)(uint32_t slot, uint32_t cpu, uint32_t *orchId);

/* ---- Event descriptors ----
 * A new event descriptor with the initial count and flags of eventfd(2);
 * negative on failure with errno set. */
QOV_PLAT_API int eventfd_s(unsigned int initval, int flags);

/* ---- Keyed hash table ----
 * A table of elements of a fixed size, allocated by the table itself. Every
 * element sits behind an index node whose first word points at the element.
 *
 * Hash function form: LITE_HASH_KEY_FUNC(key) returns a 32-bit hash value of
 * the key; the table places the key in bucket (value modulo bucket count).
 * Keys that compare equal must give equal values.
 *
 * Compare function form: LITE_HASH_CMP_FUNC(element, key) returns non-zero
 * when the element holds this key. Find and remove take the first element of
 * the key's bucket for which it answers non-zero.
 *
 * A table made with a lock guards its own structure with an internal lock;
 * deleting a table releases the elements still in it. A per-bucket count is the
 * number of elements whose hash value falls in the key's bucket. */
typedef struct LITE_HASH LITE_HASH_S;
typedef uint32_t (*LITE_HASH_KEY_FUNC)(const void *key);
typedef uint32_t (*LITE_HASH_CMP_FUNC)(const void *element, const void *key);
typedef struct LITE_HASH_NODE {
    void *data; /* the element */
} LITE_HASH_NODE_S;

QOV_PLAT_API LITE_HASH_S *LITE_HASH_CreateWithLock(uint32_t memPtNo, uint16_t elemSize, uint32_t bucketNum,
                                                   LITE_HASH_KEY_FUNC hashFunc, LITE_HASH_CMP_FUNC cmpFunc,
                                                   uint32_t flags);
QOV_PLAT_API void LITE_HASH_DeleteHash(LITE_HASH_S **hash);
QOV_PLAT_API void *LITE_HASH_NewData(LITE_HASH_S *hash, uint32_t flags);
QOV_PLAT_API void LITE_HASH_FreeData(LITE_HASH_S *hash, void *element);
QOV_PLAT_API uint32_t LITE_HASH_AddNode(LITE_HASH_S *hash, const void *key, void *element, uint32_t flags);
QOV_PLAT_API LITE_HASH_NODE_S *LITE_HASH_FindNodeFromFirst(LITE_HASH_S *hash, const void *key);
QOV_PLAT_API void *LITE_HASH_RemoveNodeByKey(LITE_HASH_S *hash, const void *key);
QOV_PLAT_API int32_t LITE_HASH_GetListCntByKey(LITE_HASH_S *hash, const void *key);
QOV_PLAT_API int32_t LITE_HASH_GetHashCnt(LITE_HASH_S *hash);

/* ---- Ordered tree (AVL) ----
 * Intrusive: a node is embedded in the user's object; the tree information
 * gives the compare function and the offsets of the key and of the node
 * inside the object. Find, first and next return the object, or null. */
typedef struct YAV_AVL3_NODE {
    struct YAV_AVL3_NODE *parent;
    struct YAV_AVL3_NODE *left;
    struct YAV_AVL3_NODE *right;
    int16_t lHeight;
    int16_t rHeight;
} YAV_AVL3_NODE;

typedef struct YAV_AVL3_TREE {
    YAV_AVL3_NODE *root;
    YAV_AVL3_NODE *first;
    YAV_AVL3_NODE *last;
} YAV_AVL3_TREE;

typedef int (*YAV_AVL3_COMPARE)(const void *key1, const void *key2);

typedef struct YAV_AVL3_TREE_INFO {
    YAV_AVL3_COMPARE compare;
    uint16_t keyOffset;  /* of the key inside the object */
    uint16_t nodeOffset; /* of the YAV_AVL3_NODE inside the object */
} YAV_AVL3_TREE_INFO;

/* Prepares a node for insertion: links cleared, heights -1. */
#define YAV_AVL3_INIT_NODE(n) \
    do { (n).parent = 0; (n).left = 0; (n).right = 0; (n).lHeight = -1; (n).rHeight = -1; } while (0)

/* Null when node was inserted; else the object already in the tree with an equal key. */
QOV_PLAT_API void *YAV_AVL3_Insert_Or_Find(YAV_AVL3_TREE *tree, YAV_AVL3_NODE *node, const YAV_AVL3_TREE_INFO *info);
QOV_PLAT_API void YAV_AVL3_Delete(YAV_AVL3_TREE *tree, YAV_AVL3_NODE *node);
QOV_PLAT_API void *YAV_AVL3_Find(YAV_AVL3_TREE *tree, const void *key, const YAV_AVL3_TREE_INFO *info);
QOV_PLAT_API void *YAV_AVL3_First(YAV_AVL3_TREE *tree, const YAV_AVL3_TREE_INFO *info);
QOV_PLAT_API void *YAV_AVL3_Next(YAV_AVL3_NODE *node, const YAV_AVL3_TREE_INFO *info);

#ifdef __cplusplus
}
#endif

#endif
