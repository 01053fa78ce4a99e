// Intrusive AVL tree. A node's lHeight/rHeight are the heights of its left and
// right subtrees (0 for none); the tree keeps its root, first and last nodes.
// A failure on demand of YAV_AVL3_Insert_Or_Find inserts nothing and answers
// as if an equal key were already there (it returns the node's own object).
#include <cstdint>

#include "host_internal.h"

namespace {

using Node = YAV_AVL3_NODE;

inline void *ObjOf(Node *n, const YAV_AVL3_TREE_INFO *info) {
    return n == nullptr ? nullptr : reinterpret_cast<uint8_t *>(n) - info->nodeOffset;
}

inline const void *KeyOf(Node *n, const YAV_AVL3_TREE_INFO *info) {
    return static_cast<uint8_t *>(ObjOf(n, info)) + info->keyOffset;
}

inline int16_t Height(const Node *n) {
    return static_cast<int16_t>(n == nullptr ? 0 : 1 + (n->lHeight > n->rHeight ? n->lHeight : n->rHeight));
}

inline void Fix(Node *n) {
    n->lHeight = Height(n->left);
    n->rHeight = Height(n->right);
}

// Puts child where old was under parent (or at the root).
// NOLINTNEXTLINE(bugprone-easily-swappable-parameters): parent, old, new: the order of the rotation steps that call it
void Replace(YAV_AVL3_TREE *tree, Node *parent, Node *old, Node *child) {
    if (parent == nullptr) {
        tree->root = child;
    } else if (parent->left == old) {
        parent->left = child;
    } else {
        parent->right = child;
    }
    if (child != nullptr) child->parent = parent;
}

Node *RotateLeft(YAV_AVL3_TREE *tree, Node *n) {
    Node *r = n->right;
    Replace(tree, n->parent, n, r);
    n->right = r->left;
    if (r->left != nullptr) r->left->parent = n;
    r->left = n;
    n->parent = r;
    Fix(n);
    Fix(r);
    return r;
}

Node *RotateRight(YAV_AVL3_TREE *tree, Node *n) {
    Node *l = n->left;
    Replace(tree, n->parent, n, l);
    n->left = l->right;
    if (l->right != nullptr) l->right->parent = n;
    l->right = n;
    n->parent = l;
    Fix(n);
    Fix(l);
    return l;
}

// Restores the heights and the balance from n up to the root.
void Rebalance(YAV_AVL3_TREE *tree, Node *n) {
    while (n != nullptr) {
        Fix(n);
        int balance = n->rHeight - n->lHeight;
        if (balance > 1) {
            if (n->right->lHeight > n->right->rHeight) RotateRight(tree, n->right);
            n = RotateLeft(tree, n);
        } else if (balance < -1) {
            if (n->left->rHeight > n->left->lHeight) RotateLeft(tree, n->left);
            n = RotateRight(tree, n);
        }
        n = n->parent;
    }
}

Node *Leftmost(Node *n) {
    while (n != nullptr && n->left != nullptr) n = n->left;
    return n;
}

Node *Rightmost(Node *n) {
    while (n != nullptr && n->right != nullptr) n = n->right;
    return n;
}

void UpdateEnds(YAV_AVL3_TREE *tree) {
    tree->first = Leftmost(tree->root);
    tree->last = Rightmost(tree->root);
}

// Moves succ (the leftmost node of n's right subtree) into n's place; returns
// the node from which the balance must be restored.
Node *SwapInSuccessor(YAV_AVL3_TREE *tree, Node *n, Node *succ) {
    Node *start = succ->parent;
    if (succ->parent != n) {
        Replace(tree, succ->parent, succ, succ->right);
        succ->right = n->right;
        succ->right->parent = succ;
    } else {
        start = succ;
    }
    Replace(tree, n->parent, n, succ);
    succ->left = n->left;
    succ->left->parent = succ;
    return start;
}

}  // namespace

extern "C" {

QOV_PLAT_API void *YAV_AVL3_Insert_Or_Find(YAV_AVL3_TREE *tree, YAV_AVL3_NODE *node,
                                           const YAV_AVL3_TREE_INFO *info) {
    if (tree == nullptr || node == nullptr || info == nullptr) return nullptr;
    int64_t r = 0;
    if (qovhost::Fail("YAV_AVL3_Insert_Or_Find", &r)) return ObjOf(node, info);
    const void *key = KeyOf(node, info);
    Node *parent = nullptr;
    Node **link = &tree->root;
    while (*link != nullptr) {
        parent = *link;
        int c = info->compare(key, KeyOf(parent, info));
        if (c == 0) return ObjOf(parent, info);
        link = c < 0 ? &parent->left : &parent->right;
    }
    node->parent = parent;
    node->left = nullptr;
    node->right = nullptr;
    node->lHeight = 0;
    node->rHeight = 0;
    *link = node;
    Rebalance(tree, parent);
    UpdateEnds(tree);
    return nullptr;
}

QOV_PLAT_API void YAV_AVL3_Delete(YAV_AVL3_TREE *tree, YAV_AVL3_NODE *node) {
    if (tree == nullptr || node == nullptr) return;
    Node *start;
    if (node->left != nullptr && node->right != nullptr) {
        start = SwapInSuccessor(tree, node, Leftmost(node->right));
    } else {
        start = node->parent;
        Replace(tree, node->parent, node, node->left != nullptr ? node->left : node->right);
    }
    Rebalance(tree, start);
    UpdateEnds(tree);
    YAV_AVL3_INIT_NODE(*node);
}

QOV_PLAT_API void *YAV_AVL3_Find(YAV_AVL3_TREE *tree, const void *key, const YAV_AVL3_TREE_INFO *info) {
    if (tree == nullptr || key == nullptr || info == nullptr) return nullptr;
    Node *n = tree->root;
    while (n != nullptr) {
        int c = info->compare(key, KeyOf(n, info));
        if (c == 0) return ObjOf(n, info);
        n = c < 0 ? n->left : n->right;
    }
    return nullptr;
}

QOV_PLAT_API void *YAV_AVL3_First(YAV_AVL3_TREE *tree, const YAV_AVL3_TREE_INFO *info) {
    if (tree == nullptr || info == nullptr) return nullptr;
    return ObjOf(Leftmost(tree->root), info);
}

QOV_PLAT_API void *YAV_AVL3_Next(YAV_AVL3_NODE *node, const YAV_AVL3_TREE_INFO *info) {
    if (node == nullptr || info == nullptr) return nullptr;
    if (node->right != nullptr) return ObjOf(Leftmost(node->right), info);
    Node *n = node;
    while (n->parent != nullptr && n->parent->right == n) n = n->parent;
    return ObjOf(n->parent, info);
}

}  // extern "C"
