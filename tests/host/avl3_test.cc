// The host AVL tree against a reference set: order, find, parent links,
// recorded heights and the AVL balance after every insertion and deletion.
#include <algorithm>
#include <cmath>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <vector>

#include "support/test_env.h"

namespace {

struct Obj {
    uint32_t pad;
    int key;
    YAV_AVL3_NODE node;
};

int CmpInt(const void *a, const void *b) {
    int x = *static_cast<const int *>(a);
    int y = *static_cast<const int *>(b);
    return x < y ? -1 : (x > y ? 1 : 0);
}

const YAV_AVL3_TREE_INFO kInfo = {CmpInt, offsetof(Obj, key), offsetof(Obj, node)};

// Height of the subtree, checking links, recorded heights and balance on the way.
int Check(const YAV_AVL3_NODE *n, const YAV_AVL3_NODE *parent) {
    if (n == nullptr) return 0;
    EXPECT_EQ(n->parent, parent);
    int l = Check(n->left, n);
    int r = Check(n->right, n);
    EXPECT_EQ(n->lHeight, l);
    EXPECT_EQ(n->rHeight, r);
    EXPECT_LE(std::abs(l - r), 1);
    return 1 + std::max(l, r);
}

class Avl3Test : public qovtest::HostTest {
protected:
    Obj *Make(int key) {
        objs_.push_back(std::make_unique<Obj>());
        Obj *o = objs_.back().get();
        o->key = key;
        YAV_AVL3_INIT_NODE(o->node);
        return o;
    }
    void ExpectMatches(const std::set<int> &ref) {
        std::vector<int> walk;
        for (auto *o = static_cast<Obj *>(YAV_AVL3_First(&tree_, &kInfo)); o != nullptr;
             o = static_cast<Obj *>(YAV_AVL3_Next(&o->node, &kInfo))) {
            walk.push_back(o->key);
        }
        ASSERT_EQ(walk, std::vector<int>(ref.begin(), ref.end()));
        int h = Check(tree_.root, nullptr);
        ASSERT_LE(h, 1.45 * std::log2(ref.size() + 2.0)) << "tree out of balance";
    }
    YAV_AVL3_TREE tree_{};
    std::vector<std::unique_ptr<Obj>> objs_;
};

TEST_F(Avl3Test, RandomInsertDeleteMatchesReference) {
    std::set<int> ref;
    std::map<int, Obj *> live;
    for (int k = 1000; k < 1300; ++k) {  // ascending keys first: the classic way to unbalance a tree
        live[k] = Make(k);
        ASSERT_EQ(YAV_AVL3_Insert_Or_Find(&tree_, &live[k]->node, &kInfo), nullptr);
        ref.insert(k);
    }
    ExpectMatches(ref);
    std::mt19937 rng(7);
    for (int step = 0; step < 4000; ++step) {
        int key = static_cast<int>(rng() % 500) * 3;
        auto *found = static_cast<Obj *>(YAV_AVL3_Find(&tree_, &key, &kInfo));
        ASSERT_EQ(found != nullptr, ref.count(key) != 0);
        if (found == nullptr) {
            Obj *o = Make(key);
            ASSERT_EQ(YAV_AVL3_Insert_Or_Find(&tree_, &o->node, &kInfo), nullptr);
            ref.insert(key);
            live[key] = o;
        } else {
            ASSERT_EQ(found, live[key]);
            YAV_AVL3_Delete(&tree_, &found->node);
            ref.erase(key);
            live.erase(key);
        }
        if (step % 50 == 0) ExpectMatches(ref);
    }
    ExpectMatches(ref);
}

TEST_F(Avl3Test, EqualKeyReturnsTheObjectInTheTree) {
    Obj *a = Make(3);
    Obj *b = Make(3);
    ASSERT_EQ(YAV_AVL3_Insert_Or_Find(&tree_, &a->node, &kInfo), nullptr);
    EXPECT_EQ(YAV_AVL3_Insert_Or_Find(&tree_, &b->node, &kInfo), a);
    ExpectMatches({3});
}

TEST_F(Avl3Test, InsertFailsOnDemandWithoutInserting) {
    Obj *a = Make(1);
    QovHostFailNext("YAV_AVL3_Insert_Or_Find", 1, 0);
    EXPECT_NE(YAV_AVL3_Insert_Or_Find(&tree_, &a->node, &kInfo), nullptr);
    EXPECT_EQ(tree_.root, nullptr);
    EXPECT_EQ(YAV_AVL3_Insert_Or_Find(&tree_, &a->node, &kInfo), nullptr);
    int key = 1;
    EXPECT_EQ(YAV_AVL3_Find(&tree_, &key, &kInfo), a);
}

}  // namespace
