// Generic tables: a splay tree whose nodes the caller allocates, with
// Windows' node layout, key order for the enumerations, insertion order for
// RtlGetElementGenericTable, and the restart-key protocol.
#include "host_test.h"

#include <algorithm>
#include <map>
#include <random>
#include <set>
#include <vector>

using namespace host_test;

namespace {

constexpr ULONG kTag = hk::MakeTag("Gtab");

struct Element {
    ULONG key;
    ULONG payload;
};

// What the callbacks saw, reached through the table's context.
struct Callbacks {
    std::vector<CLONG> allocation_sizes;
    std::set<PVOID> live_nodes;
    std::vector<PVOID> freed_nodes;
    ULONG compares = 0;
};

Callbacks *CallbacksOf(PRTL_GENERIC_TABLE table) { return static_cast<Callbacks *>(table->TableContext); }

RTL_GENERIC_COMPARE_RESULTS NTAPI CompareElements(PRTL_GENERIC_TABLE table, PVOID first, PVOID second) {
    ++CallbacksOf(table)->compares;
    const ULONG a = static_cast<Element *>(first)->key, b = static_cast<Element *>(second)->key;
    return a < b ? GenericLessThan : a > b ? GenericGreaterThan : GenericEqual;
}

PVOID NTAPI AllocateNode(PRTL_GENERIC_TABLE table, CLONG size) {
    PVOID node = ExAllocatePoolWithTag(PagedPool, size, kTag);
    CallbacksOf(table)->allocation_sizes.push_back(size);
    if (node != nullptr) CallbacksOf(table)->live_nodes.insert(node);
    return node;
}

VOID NTAPI FreeNode(PRTL_GENERIC_TABLE table, PVOID node) {
    EXPECT_EQ(CallbacksOf(table)->live_nodes.erase(node), 1u) << "freed a node the table never allocated";
    CallbacksOf(table)->freed_nodes.push_back(node);
    ExFreePoolWithTag(node, kTag);
}

// Where Windows puts the caller's element in a node: after the splay links
// and the insertion-order links, at the next 8-byte boundary.
constexpr size_t kHeaderSize = (sizeof(RTL_SPLAY_LINKS) + sizeof(LIST_ENTRY) + 7) / 8 * 8;

class GenericTable : public MachineTest {
protected:
    void SetUp() override {
        MachineTest::SetUp();
        RtlInitializeGenericTable(&table_, CompareElements, AllocateNode, FreeNode, &callbacks_);
    }
    void TearDown() override {
        Clear();
        EXPECT_TRUE(callbacks_.live_nodes.empty());
        MachineTest::TearDown();
    }

    Element *Insert(ULONG key, ULONG payload = 0, BOOLEAN *is_new = nullptr) {
        Element element{key, payload};
        BOOLEAN dummy;
        return static_cast<Element *>(
            RtlInsertElementGenericTable(&table_, &element, sizeof element, is_new ? is_new : &dummy));
    }
    Element *Lookup(ULONG key) {
        Element element{key, 0};
        return static_cast<Element *>(RtlLookupElementGenericTable(&table_, &element));
    }
    bool Delete(ULONG key) {
        Element element{key, 0};
        return RtlDeleteElementGenericTable(&table_, &element) != FALSE;
    }
    std::vector<ULONG> WalkWithoutSplaying() {
        std::vector<ULONG> keys;
        PVOID restart = nullptr;
        for (auto *e = static_cast<Element *>(RtlEnumerateGenericTableWithoutSplaying(&table_, &restart)); e;
             e = static_cast<Element *>(RtlEnumerateGenericTableWithoutSplaying(&table_, &restart)))
            keys.push_back(e->key);
        return keys;
    }
    std::vector<ULONG> WalkSplaying() {
        std::vector<ULONG> keys;
        for (auto *e = static_cast<Element *>(RtlEnumerateGenericTable(&table_, TRUE)); e;
             e = static_cast<Element *>(RtlEnumerateGenericTable(&table_, FALSE)))
            keys.push_back(e->key);
        return keys;
    }
    std::vector<ULONG> ByIndex() {
        std::vector<ULONG> keys;
        for (ULONG i = 0; i < RtlNumberGenericTableElements(&table_); ++i)
            keys.push_back(static_cast<Element *>(RtlGetElementGenericTable(&table_, i))->key);
        return keys;
    }
    ULONG RootKey() {
        return reinterpret_cast<Element *>(reinterpret_cast<PUCHAR>(table_.TableRoot) + kHeaderSize)->key;
    }
    // Every link agrees with its partner and the keys are in order.
    void ExpectTreeSound() {
        if (table_.TableRoot == nullptr) return;
        ASSERT_TRUE(RtlIsRoot(table_.TableRoot));
        size_t nodes = 0;
        std::vector<PRTL_SPLAY_LINKS> stack{table_.TableRoot};
        while (!stack.empty()) {
            PRTL_SPLAY_LINKS node = stack.back();
            stack.pop_back();
            ++nodes;
            for (PRTL_SPLAY_LINKS child : {node->LeftChild, node->RightChild}) {
                if (child == nullptr) continue;
                ASSERT_EQ(child->Parent, node);
                stack.push_back(child);
            }
        }
        EXPECT_EQ(nodes, RtlNumberGenericTableElements(&table_));
        const auto keys = WalkWithoutSplaying();
        EXPECT_TRUE(std::is_sorted(keys.begin(), keys.end()));
        EXPECT_EQ(std::adjacent_find(keys.begin(), keys.end()), keys.end());
    }
    void Clear() {
        while (auto *e = static_cast<Element *>(RtlGetElementGenericTable(&table_, 0))) {
            Element copy = *e;
            ASSERT_TRUE(RtlDeleteElementGenericTable(&table_, &copy));
        }
    }

    RTL_GENERIC_TABLE table_;
    Callbacks callbacks_;
};

TEST_F(GenericTable, AnEmptyTableHasNothingToGive) {
    EXPECT_TRUE(RtlIsGenericTableEmpty(&table_));
    EXPECT_EQ(RtlNumberGenericTableElements(&table_), 0u);
    EXPECT_EQ(Lookup(1), nullptr);
    EXPECT_FALSE(Delete(1));
    EXPECT_EQ(RtlGetElementGenericTable(&table_, 0), nullptr);
    EXPECT_EQ(RtlEnumerateGenericTable(&table_, TRUE), nullptr);
    PVOID restart = nullptr;
    EXPECT_EQ(RtlEnumerateGenericTableWithoutSplaying(&table_, &restart), nullptr);
    EXPECT_EQ(restart, nullptr);
    EXPECT_EQ(callbacks_.compares, 0u);
}

// The caller's allocate routine is asked for the table's header and the
// element together; the element is copied in after the header; the free
// routine gets the node back, not the element.
TEST_F(GenericTable, EachElementLivesInANodeTheCallerAllocatesAfterTheTablesHeader) {
    EXPECT_EQ(kHeaderSize, sizeof(void *) == 8 ? 40u : 24u);
    Element original{7, 0xC0FFEE};
    BOOLEAN is_new = FALSE;
    auto *stored = static_cast<Element *>(RtlInsertElementGenericTable(&table_, &original, sizeof original, &is_new));
    ASSERT_NE(stored, nullptr);
    EXPECT_TRUE(is_new);
    EXPECT_NE(stored, &original) << "the element is copied, not referenced";
    EXPECT_EQ(stored->key, 7u);
    EXPECT_EQ(stored->payload, 0xC0FFEEu);
    ASSERT_EQ(callbacks_.allocation_sizes.size(), 1u);
    EXPECT_EQ(callbacks_.allocation_sizes[0], kHeaderSize + sizeof(Element));
    ASSERT_EQ(callbacks_.live_nodes.size(), 1u);
    PVOID node = *callbacks_.live_nodes.begin();
    EXPECT_EQ(reinterpret_cast<PUCHAR>(stored), static_cast<PUCHAR>(node) + kHeaderSize);
    EXPECT_EQ(static_cast<PVOID>(table_.TableRoot), node) << "the splay links open the node";
    EXPECT_TRUE(Delete(7));
    ASSERT_EQ(callbacks_.freed_nodes.size(), 1u);
    EXPECT_EQ(callbacks_.freed_nodes[0], node);
    EXPECT_TRUE(RtlIsGenericTableEmpty(&table_));
}

// Enumerations go in key order, RtlGetElementGenericTable in insertion order.
TEST_F(GenericTable, EnumerationsFollowTheKeysAndIndicesFollowInsertion) {
    const std::vector<ULONG> inserted = {50, 20, 80, 10, 30, 70, 90, 60, 40, 5, 95, 1};
    for (ULONG key : inserted) ASSERT_NE(Insert(key), nullptr);
    std::vector<ULONG> sorted = inserted;
    std::sort(sorted.begin(), sorted.end());
    EXPECT_EQ(WalkWithoutSplaying(), sorted);
    EXPECT_EQ(WalkSplaying(), sorted);
    EXPECT_EQ(ByIndex(), inserted);
    EXPECT_EQ(RtlGetElementGenericTable(&table_, ULONG(inserted.size())), nullptr);
    EXPECT_EQ(RtlGetElementGenericTable(&table_, ~0u), nullptr);
    ExpectTreeSound();
}

// Looking up and inserting reshape the tree (the element found or inserted
// is the new root) but never what the table answers.
TEST_F(GenericTable, SplayingReshapesTheTreeButNotTheAnswers) {
    std::vector<ULONG> keys(64);
    for (ULONG i = 0; i < keys.size(); ++i) keys[i] = i * 3;
    std::mt19937 random(1234);
    std::vector<ULONG> order = keys;
    std::shuffle(order.begin(), order.end(), random);
    for (ULONG key : order) {
        ASSERT_NE(Insert(key, key + 1), nullptr);
        EXPECT_EQ(RootKey(), key) << "an insert splays the new element to the root";
    }
    const auto walked = WalkWithoutSplaying();
    const auto indexed = ByIndex();
    for (int round = 0; round < 200; ++round) {
        const ULONG key = keys[random() % keys.size()];
        Element *found = Lookup(key);
        ASSERT_NE(found, nullptr);
        EXPECT_EQ(found->payload, key + 1);
        EXPECT_EQ(RootKey(), key) << "a lookup that finds splays";
        PRTL_SPLAY_LINKS root = table_.TableRoot;
        EXPECT_EQ(Lookup(key + 1), nullptr);
        EXPECT_EQ(table_.TableRoot, root) << "a lookup that misses leaves the tree alone";
        if (round % 20 == 0) {
            EXPECT_EQ(WalkWithoutSplaying(), walked);
            EXPECT_EQ(table_.TableRoot, root) << "walking without splaying leaves the tree alone";
            EXPECT_EQ(ByIndex(), indexed);
            ExpectTreeSound();
        }
    }
    EXPECT_EQ(WalkSplaying(), walked);
    EXPECT_EQ(RootKey(), walked.back()) << "the splaying enumeration leaves its last element at the root";
}

// RtlEnumerateGenericTable keeps its place at the root, so a lookup between
// two of its calls moves it on from the element looked up, as on Windows;
// the restart-key walk keeps its place in the key and is not moved.
TEST_F(GenericTable, ALookupMovesTheSplayingEnumerationButNotTheRestartKeyWalk) {
    for (ULONG key : {1u, 2u, 3u, 4u, 5u, 6u}) Insert(key);
    auto *first = static_cast<Element *>(RtlEnumerateGenericTable(&table_, TRUE));
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(first->key, 1u);
    ASSERT_NE(Lookup(4), nullptr);
    auto *next = static_cast<Element *>(RtlEnumerateGenericTable(&table_, FALSE));
    ASSERT_NE(next, nullptr);
    EXPECT_EQ(next->key, 5u);

    PVOID restart = nullptr;
    auto *walk = static_cast<Element *>(RtlEnumerateGenericTableWithoutSplaying(&table_, &restart));
    ASSERT_NE(walk, nullptr);
    EXPECT_EQ(walk->key, 1u);
    ASSERT_NE(Lookup(4), nullptr);
    walk = static_cast<Element *>(RtlEnumerateGenericTableWithoutSplaying(&table_, &restart));
    ASSERT_NE(walk, nullptr);
    EXPECT_EQ(walk->key, 2u);
}

// The restart key of the walk without splaying: null starts at the first
// element in key order; at the end the walk keeps answering null.
TEST_F(GenericTable, TheRestartKeyStartsFromNullAndStaysAtTheEnd) {
    for (ULONG key : {30u, 10u, 20u}) Insert(key);
    PVOID restart = nullptr;
    std::vector<ULONG> keys;
    while (auto *e = static_cast<Element *>(RtlEnumerateGenericTableWithoutSplaying(&table_, &restart)))
        keys.push_back(e->key);
    EXPECT_EQ(keys, (std::vector<ULONG>{10, 20, 30}));
    EXPECT_NE(restart, nullptr);
    EXPECT_EQ(RtlEnumerateGenericTableWithoutSplaying(&table_, &restart), nullptr);
    restart = nullptr;
    auto *again = static_cast<Element *>(RtlEnumerateGenericTableWithoutSplaying(&table_, &restart));
    ASSERT_NE(again, nullptr);
    EXPECT_EQ(again->key, 10u);
}

// A sweep deletes as it walks. The key of a deleted element is gone with
// its node, so after each delete the walk restarts from null, and still sees
// every element that stays exactly once in order before it ends.
TEST_F(GenericTable, DeletingDuringARestartKeyWalkThatRestartsFromNull) {
    const struct {
        const char *name;
        bool (*doomed)(ULONG key);
    } sweeps[] = {
        {"every other", [](ULONG key) { return key % 2 == 0; }},
        {"all", [](ULONG) { return true; }},
        {"none", [](ULONG) { return false; }},
        {"the first", [](ULONG key) { return key == 0; }},
        {"the last", [](ULONG key) { return key == 99; }},
        {"a run in the middle", [](ULONG key) { return key >= 40 && key < 60; }},
    };
    for (const auto &sweep : sweeps) {
        SCOPED_TRACE(sweep.name);
        std::mt19937 random(99);
        std::vector<ULONG> keys(100);
        for (ULONG i = 0; i < keys.size(); ++i) keys[i] = i;
        std::shuffle(keys.begin(), keys.end(), random);
        for (ULONG key : keys) Insert(key);
        std::vector<ULONG> kept_seen;
        PVOID restart = nullptr;
        size_t steps = 0;
        while (auto *e = static_cast<Element *>(RtlEnumerateGenericTableWithoutSplaying(&table_, &restart))) {
            ASSERT_LT(++steps, 10000u) << "the sweep does not end";
            if (sweep.doomed(e->key)) {
                Element copy = *e;
                ASSERT_TRUE(RtlDeleteElementGenericTable(&table_, &copy));
                restart = nullptr;
                continue;
            }
            if (std::find(kept_seen.begin(), kept_seen.end(), e->key) == kept_seen.end()) kept_seen.push_back(e->key);
        }
        std::vector<ULONG> expected;
        for (ULONG key = 0; key < 100; ++key)
            if (!sweep.doomed(key)) expected.push_back(key);
        EXPECT_EQ(kept_seen, expected);
        EXPECT_EQ(WalkWithoutSplaying(), expected);
        EXPECT_EQ(RtlNumberGenericTableElements(&table_), expected.size());
        ExpectTreeSound();
        Clear();
    }
}

// An allocate routine that fails: the insert answers null and the table is
// as it was (count, key order, insertion order, the tree itself).
TEST_F(GenericTable, AFailedAllocationInsertsNothingAndChangesNothing) {
    for (ULONG key : {20u, 10u, 30u}) Insert(key);
    const auto walked = WalkWithoutSplaying();
    const auto indexed = ByIndex();
    PRTL_SPLAY_LINKS root = table_.TableRoot;
    hk::FailNthAllocation(1);
    BOOLEAN is_new = TRUE;
    EXPECT_EQ(Insert(15, 0, &is_new), nullptr);
    EXPECT_FALSE(is_new);
    EXPECT_EQ(callbacks_.allocation_sizes.back(), kHeaderSize + sizeof(Element)) << "the routine was asked";
    EXPECT_EQ(RtlNumberGenericTableElements(&table_), 3u);
    EXPECT_EQ(table_.TableRoot, root);
    EXPECT_EQ(WalkWithoutSplaying(), walked);
    EXPECT_EQ(ByIndex(), indexed);
    EXPECT_EQ(Lookup(15), nullptr);
    EXPECT_NE(Insert(15), nullptr) << "the next allocation succeeds again";
    EXPECT_EQ(RtlNumberGenericTableElements(&table_), 4u);
}

// A second element with an equal key is not inserted: the one already there
// comes back, unchanged, and nothing is allocated.
TEST_F(GenericTable, ADuplicateIsNotInsertedAndTheElementAlreadyThereComesBack) {
    BOOLEAN is_new = FALSE;
    Element *first = Insert(5, 111, &is_new);
    ASSERT_NE(first, nullptr);
    EXPECT_TRUE(is_new);
    Insert(9);
    const size_t allocations = callbacks_.allocation_sizes.size();
    is_new = TRUE;
    Element *again = Insert(5, 222, &is_new);
    EXPECT_EQ(again, first);
    EXPECT_FALSE(is_new);
    EXPECT_EQ(again->payload, 111u) << "the existing element is not overwritten";
    EXPECT_EQ(callbacks_.allocation_sizes.size(), allocations);
    EXPECT_EQ(RtlNumberGenericTableElements(&table_), 2u);
    EXPECT_EQ(RootKey(), 5u) << "finding the duplicate splays it";
    Element element{5, 0};
    EXPECT_NE(RtlInsertElementGenericTable(&table_, &element, sizeof element, nullptr), nullptr)
        << "NewElement is optional";
}

// Deleting an element moves every later one down an index; the remembered
// position is forgotten, so indices stay right whatever the access order.
TEST_F(GenericTable, IndicesCloseUpAfterADeleteWhateverTheAccessOrder) {
    std::vector<ULONG> model;
    std::mt19937 random(7);
    for (ULONG i = 0; i < 40; ++i) {
        const ULONG key = (i * 37) % 101;
        Insert(key);
        model.push_back(key);
    }
    for (int round = 0; round < 300; ++round) {
        const ULONG i = random() % (model.size() + 2);
        auto *e = static_cast<Element *>(RtlGetElementGenericTable(&table_, i));
        if (i >= model.size()) {
            EXPECT_EQ(e, nullptr);
        } else {
            ASSERT_NE(e, nullptr);
            EXPECT_EQ(e->key, model[i]) << "index " << i << " in round " << round;
        }
        if (round % 10 == 9 && !model.empty()) {
            const size_t victim = random() % model.size();
            ASSERT_TRUE(Delete(model[victim]));
            model.erase(model.begin() + victim);
        }
    }
    EXPECT_EQ(ByIndex(), model);
}

// Inserts, lookups and deletes at random against a model of what the
// table holds, with the tree checked throughout.
TEST_F(GenericTable, RandomOperationsAgreeWithAModel) {
    std::mt19937 random(2026);
    std::map<ULONG, ULONG> model;
    std::vector<ULONG> insertion;
    for (int step = 0; step < 3000; ++step) {
        const ULONG key = random() % 200;
        switch (random() % 3) {
        case 0: {
            BOOLEAN is_new = FALSE;
            Element *e = Insert(key, ULONG(step), &is_new);
            ASSERT_NE(e, nullptr);
            EXPECT_EQ(bool(is_new), model.count(key) == 0);
            if (is_new) {
                model[key] = ULONG(step);
                insertion.push_back(key);
            }
            EXPECT_EQ(e->payload, model[key]);
            break;
        }
        case 1: {
            Element *e = Lookup(key);
            EXPECT_EQ(e != nullptr, model.count(key) == 1);
            if (e != nullptr) EXPECT_EQ(e->payload, model[key]);
            break;
        }
        default:
            EXPECT_EQ(Delete(key), model.erase(key) == 1);
            std::erase(insertion, key);
            break;
        }
        if (step % 250 == 0) {
            ExpectTreeSound();
            EXPECT_EQ(ByIndex(), insertion);
        }
    }
    std::vector<ULONG> keys;
    for (auto &[key, payload] : model) keys.push_back(key);
    EXPECT_EQ(WalkWithoutSplaying(), keys);
    EXPECT_EQ(WalkSplaying(), keys);
    EXPECT_EQ(RtlNumberGenericTableElements(&table_), model.size());
}

// The splay-link routines the tables are made of, on a tree built by hand.
TEST_F(GenericTable, SplayLinkRoutinesWalkAndDeleteAsTheDdkDescribes) {
    RTL_SPLAY_LINKS n[7];
    for (auto &links : n) RtlInitializeSplayLinks(&links);
    // n[3] at the root; n[1] (n[0], n[2]) left; n[5] (n[4], n[6]) right.
    RtlInsertAsLeftChild(&n[3], &n[1]);
    RtlInsertAsRightChild(&n[3], &n[5]);
    RtlInsertAsLeftChild(&n[1], &n[0]);
    RtlInsertAsRightChild(&n[1], &n[2]);
    RtlInsertAsLeftChild(&n[5], &n[4]);
    RtlInsertAsRightChild(&n[5], &n[6]);
    EXPECT_TRUE(RtlIsRoot(&n[3]));
    EXPECT_TRUE(RtlIsLeftChild(&n[1]));
    EXPECT_TRUE(RtlIsRightChild(&n[6]));
    for (int i = 0; i < 6; ++i) EXPECT_EQ(RtlRealSuccessor(&n[i]), &n[i + 1]) << i;
    EXPECT_EQ(RtlRealSuccessor(&n[6]), nullptr);
    for (int i = 1; i < 7; ++i) EXPECT_EQ(RtlRealPredecessor(&n[i]), &n[i - 1]) << i;
    EXPECT_EQ(RtlRealPredecessor(&n[0]), nullptr);
    EXPECT_EQ(RtlSubtreeSuccessor(&n[3]), &n[4]);
    EXPECT_EQ(RtlSubtreePredecessor(&n[3]), &n[2]);
    EXPECT_EQ(RtlSubtreeSuccessor(&n[2]), nullptr);

    EXPECT_EQ(RtlSplay(&n[4]), &n[4]);
    EXPECT_TRUE(RtlIsRoot(&n[4]));
    for (int i = 0; i < 6; ++i) EXPECT_EQ(RtlRealSuccessor(&n[i]), &n[i + 1]) << "after the splay, " << i;

    PRTL_SPLAY_LINKS root = RtlDelete(&n[4]);
    ASSERT_NE(root, nullptr);
    EXPECT_TRUE(RtlIsRoot(root));
    std::vector<PRTL_SPLAY_LINKS> in_order;
    PRTL_SPLAY_LINKS x = root;
    while (RtlLeftChild(x) != nullptr) x = RtlLeftChild(x);
    for (; x != nullptr; x = RtlRealSuccessor(x)) in_order.push_back(x);
    EXPECT_EQ(in_order, (std::vector<PRTL_SPLAY_LINKS>{&n[0], &n[1], &n[2], &n[3], &n[5], &n[6]}));

    RtlDeleteNoSplay(&n[0], &root);
    EXPECT_TRUE(RtlIsRoot(root));
    PRTL_SPLAY_LINKS single = &n[4];
    RtlInitializeSplayLinks(single);
    EXPECT_EQ(RtlDelete(single), nullptr) << "deleting the only node leaves no tree";
}

}  // namespace
