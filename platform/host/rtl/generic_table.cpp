// The run-time library's generic tables: a splay tree of caller-allocated
// nodes, with the insertion order kept beside it in a list.
//
// What the library may rely on, because Windows does it:
// - each node comes from the caller's allocate routine, asked for the
//   table's header (splay links, then the insertion-order links) plus the
//   caller's element, which starts at the first 8-byte boundary after the
//   header; the element is copied in, and the free routine is handed the
//   node itself on delete;
// - an insert or a lookup that finds its element splays it to the root, and
//   a delete splays the removed node's parent; RtlEnumerateGenericTable
//   splays every element it returns and takes the root's successor next, so
//   a lookup between its calls moves the enumeration;
//   RtlEnumerateGenericTableWithoutSplaying leaves the tree as it is;
// - RtlGetElementGenericTable counts in insertion order, remembering the
//   last element it reached, and a delete makes it forget.
#include "internal.h"

#include <cstring>

namespace {

struct TableEntryHeader {
    RTL_SPLAY_LINKS SplayLinks;
    LIST_ENTRY ListEntry;
    LONGLONG UserData;  // where the element starts; 8-byte aligned, as on Windows
};
constexpr size_t kUserDataOffset = offsetof(TableEntryHeader, UserData);

TableEntryHeader *HeaderOf(PRTL_SPLAY_LINKS links) { return reinterpret_cast<TableEntryHeader *>(links); }
TableEntryHeader *HeaderOf(PLIST_ENTRY entry) { return CONTAINING_RECORD(entry, TableEntryHeader, ListEntry); }
PVOID UserDataOf(TableEntryHeader *header) { return reinterpret_cast<PUCHAR>(header) + kUserDataOffset; }
PVOID UserDataOf(PRTL_SPLAY_LINKS links) { return links == nullptr ? nullptr : UserDataOf(HeaderOf(links)); }

bool IsRoot(PRTL_SPLAY_LINKS links) { return links->Parent == links; }

// One rotation that lifts `x` above its parent.
void Rotate(PRTL_SPLAY_LINKS x) {
    PRTL_SPLAY_LINKS parent = x->Parent;
    const bool parent_was_root = IsRoot(parent);
    PRTL_SPLAY_LINKS grandparent = parent->Parent;
    if (parent->LeftChild == x) {
        parent->LeftChild = x->RightChild;
        if (x->RightChild != nullptr) x->RightChild->Parent = parent;
        x->RightChild = parent;
    } else {
        parent->RightChild = x->LeftChild;
        if (x->LeftChild != nullptr) x->LeftChild->Parent = parent;
        x->LeftChild = parent;
    }
    parent->Parent = x;
    if (parent_was_root) {
        x->Parent = x;
    } else {
        x->Parent = grandparent;
        if (grandparent->LeftChild == parent)
            grandparent->LeftChild = x;
        else
            grandparent->RightChild = x;
    }
}

PRTL_SPLAY_LINKS Leftmost(PRTL_SPLAY_LINKS links) {
    while (links->LeftChild != nullptr) links = links->LeftChild;
    return links;
}

PRTL_SPLAY_LINKS Rightmost(PRTL_SPLAY_LINKS links) {
    while (links->RightChild != nullptr) links = links->RightChild;
    return links;
}

// Takes `links` out of its tree. Returns the node the tree should be splayed
// from (the removed node's parent, once a node with two children has been
// replaced by its predecessor), null when that was the only node, and sets
// *root to the root afterwards.
PRTL_SPLAY_LINKS Unlink(PRTL_SPLAY_LINKS links, PRTL_SPLAY_LINKS *root) {
    PRTL_SPLAY_LINKS replacement;
    PRTL_SPLAY_LINKS splay_from;
    if (links->LeftChild != nullptr && links->RightChild != nullptr) {
        // The predecessor, which has no right child, takes the node's place.
        PRTL_SPLAY_LINKS predecessor = Rightmost(links->LeftChild);
        if (predecessor->Parent == links) {
            splay_from = predecessor;
        } else {
            PRTL_SPLAY_LINKS predecessor_parent = predecessor->Parent;
            predecessor_parent->RightChild = predecessor->LeftChild;
            if (predecessor->LeftChild != nullptr) predecessor->LeftChild->Parent = predecessor_parent;
            predecessor->LeftChild = links->LeftChild;
            links->LeftChild->Parent = predecessor;
            splay_from = predecessor_parent;
        }
        predecessor->RightChild = links->RightChild;
        links->RightChild->Parent = predecessor;
        replacement = predecessor;
    } else {
        replacement = links->LeftChild != nullptr ? links->LeftChild : links->RightChild;
        splay_from = IsRoot(links) ? replacement : links->Parent;
    }
    if (IsRoot(links)) {
        if (replacement != nullptr) replacement->Parent = replacement;
        *root = replacement;
    } else {
        PRTL_SPLAY_LINKS parent = links->Parent;
        if (parent->LeftChild == links)
            parent->LeftChild = replacement;
        else
            parent->RightChild = replacement;
        if (replacement != nullptr) replacement->Parent = parent;
    }
    RtlInitializeSplayLinks(links);
    return splay_from;
}

TABLE_SEARCH_RESULT FindNodeOrParent(PRTL_GENERIC_TABLE table, PVOID buffer, PRTL_SPLAY_LINKS *node_or_parent) {
    PRTL_SPLAY_LINKS node = table->TableRoot;
    if (node == nullptr) return TableEmptyTree;
    for (;;) {
        switch (table->CompareRoutine(table, buffer, UserDataOf(node))) {
        case GenericLessThan:
            if (node->LeftChild == nullptr) {
                *node_or_parent = node;
                return TableInsertAsLeft;
            }
            node = node->LeftChild;
            break;
        case GenericGreaterThan:
            if (node->RightChild == nullptr) {
                *node_or_parent = node;
                return TableInsertAsRight;
            }
            node = node->RightChild;
            break;
        default:
            *node_or_parent = node;
            return TableFoundNode;
        }
    }
}

}  // namespace

// ------------------------------------------------------------ splay links

PRTL_SPLAY_LINKS NTAPI RtlSplay(PRTL_SPLAY_LINKS Links) {
    PRTL_SPLAY_LINKS x = Links;
    while (!IsRoot(x)) {
        PRTL_SPLAY_LINKS parent = x->Parent;
        if (IsRoot(parent)) {
            Rotate(x);
        } else {
            PRTL_SPLAY_LINKS grandparent = parent->Parent;
            const bool same_side = (grandparent->LeftChild == parent) == (parent->LeftChild == x);
            if (same_side) {
                Rotate(parent);
                Rotate(x);
            } else {
                Rotate(x);
                Rotate(x);
            }
        }
    }
    return x;
}

PRTL_SPLAY_LINKS NTAPI RtlDelete(PRTL_SPLAY_LINKS Links) {
    PRTL_SPLAY_LINKS root = nullptr;
    // Unlink only sets the root when the node was the root; otherwise the
    // splay below finds the new one.
    PRTL_SPLAY_LINKS splay_from = Unlink(Links, &root);
    return splay_from == nullptr ? root : RtlSplay(splay_from);
}

VOID NTAPI RtlDeleteNoSplay(PRTL_SPLAY_LINKS Links, PRTL_SPLAY_LINKS *Root) { Unlink(Links, Root); }

PRTL_SPLAY_LINKS NTAPI RtlSubtreeSuccessor(PRTL_SPLAY_LINKS Links) {
    return Links->RightChild == nullptr ? nullptr : Leftmost(Links->RightChild);
}

PRTL_SPLAY_LINKS NTAPI RtlSubtreePredecessor(PRTL_SPLAY_LINKS Links) {
    return Links->LeftChild == nullptr ? nullptr : Rightmost(Links->LeftChild);
}

PRTL_SPLAY_LINKS NTAPI RtlRealSuccessor(PRTL_SPLAY_LINKS Links) {
    if (Links->RightChild != nullptr) return Leftmost(Links->RightChild);
    // Up while we are a right child; the first parent we are left of follows.
    PRTL_SPLAY_LINKS x = Links;
    while (!IsRoot(x) && x->Parent->RightChild == x) x = x->Parent;
    return IsRoot(x) ? nullptr : x->Parent;
}

PRTL_SPLAY_LINKS NTAPI RtlRealPredecessor(PRTL_SPLAY_LINKS Links) {
    if (Links->LeftChild != nullptr) return Rightmost(Links->LeftChild);
    PRTL_SPLAY_LINKS x = Links;
    while (!IsRoot(x) && x->Parent->LeftChild == x) x = x->Parent;
    return IsRoot(x) ? nullptr : x->Parent;
}

// ------------------------------------------------------------ generic tables

VOID NTAPI RtlInitializeGenericTable(PRTL_GENERIC_TABLE Table, PRTL_GENERIC_COMPARE_ROUTINE CompareRoutine,
                                     PRTL_GENERIC_ALLOCATE_ROUTINE AllocateRoutine,
                                     PRTL_GENERIC_FREE_ROUTINE FreeRoutine, PVOID TableContext) {
    Table->TableRoot = nullptr;
    InitializeListHead(&Table->InsertOrderList);
    Table->OrderedPointer = &Table->InsertOrderList;
    Table->WhichOrderedElement = 0;
    Table->NumberGenericTableElements = 0;
    Table->CompareRoutine = CompareRoutine;
    Table->AllocateRoutine = AllocateRoutine;
    Table->FreeRoutine = FreeRoutine;
    Table->TableContext = TableContext;
}

PVOID NTAPI RtlLookupElementGenericTableFull(PRTL_GENERIC_TABLE Table, PVOID Buffer, PVOID *NodeOrParent,
                                             TABLE_SEARCH_RESULT *SearchResult) {
    PRTL_SPLAY_LINKS node = nullptr;
    *SearchResult = FindNodeOrParent(Table, Buffer, &node);
    *NodeOrParent = node;
    if (*SearchResult != TableFoundNode) return nullptr;
    Table->TableRoot = RtlSplay(node);
    return UserDataOf(node);
}

PVOID NTAPI RtlLookupElementGenericTable(PRTL_GENERIC_TABLE Table, PVOID Buffer) {
    PVOID node = nullptr;
    TABLE_SEARCH_RESULT result;
    return RtlLookupElementGenericTableFull(Table, Buffer, &node, &result);
}

PVOID NTAPI RtlInsertElementGenericTableFull(PRTL_GENERIC_TABLE Table, PVOID Buffer, CLONG BufferSize,
                                             PBOOLEAN NewElement, PVOID NodeOrParent,
                                             TABLE_SEARCH_RESULT SearchResult) {
    PRTL_SPLAY_LINKS node = static_cast<PRTL_SPLAY_LINKS>(NodeOrParent);
    if (SearchResult != TableFoundNode) {
        auto *header = static_cast<TableEntryHeader *>(Table->AllocateRoutine(Table, CLONG(kUserDataOffset + BufferSize)));
        if (header == nullptr) {
            // Nothing changed: the tree, the order and the count are as they were.
            if (NewElement != nullptr) *NewElement = FALSE;
            return nullptr;
        }
        PRTL_SPLAY_LINKS parent = node;
        node = &header->SplayLinks;
        RtlInitializeSplayLinks(node);
        InsertTailList(&Table->InsertOrderList, &header->ListEntry);
        ++Table->NumberGenericTableElements;
        if (SearchResult == TableEmptyTree)
            Table->TableRoot = node;
        else if (SearchResult == TableInsertAsLeft)
            RtlInsertAsLeftChild(parent, node);
        else
            RtlInsertAsRightChild(parent, node);
        std::memcpy(UserDataOf(header), Buffer, BufferSize);
    }
    if (NewElement != nullptr) *NewElement = SearchResult == TableFoundNode ? FALSE : TRUE;
    Table->TableRoot = RtlSplay(node);
    return UserDataOf(node);
}

PVOID NTAPI RtlInsertElementGenericTable(PRTL_GENERIC_TABLE Table, PVOID Buffer, CLONG BufferSize,
                                         PBOOLEAN NewElement) {
    PRTL_SPLAY_LINKS node_or_parent = nullptr;
    const TABLE_SEARCH_RESULT result = FindNodeOrParent(Table, Buffer, &node_or_parent);
    return RtlInsertElementGenericTableFull(Table, Buffer, BufferSize, NewElement, node_or_parent, result);
}

BOOLEAN NTAPI RtlDeleteElementGenericTable(PRTL_GENERIC_TABLE Table, PVOID Buffer) {
    PRTL_SPLAY_LINKS node = nullptr;
    if (FindNodeOrParent(Table, Buffer, &node) != TableFoundNode) return FALSE;
    Table->TableRoot = RtlDelete(node);
    TableEntryHeader *header = HeaderOf(node);
    RemoveEntryList(&header->ListEntry);
    --Table->NumberGenericTableElements;
    // Indices after the deleted element moved down; start counting afresh.
    Table->WhichOrderedElement = 0;
    Table->OrderedPointer = &Table->InsertOrderList;
    Table->FreeRoutine(Table, header);
    return TRUE;
}

PVOID NTAPI RtlEnumerateGenericTable(PRTL_GENERIC_TABLE Table, BOOLEAN Restart) {
    if (Table->TableRoot == nullptr) return nullptr;
    PRTL_SPLAY_LINKS next = Restart ? Leftmost(Table->TableRoot) : RtlRealSuccessor(Table->TableRoot);
    if (next == nullptr) return nullptr;
    Table->TableRoot = RtlSplay(next);
    return UserDataOf(next);
}

PVOID NTAPI RtlEnumerateGenericTableWithoutSplaying(PRTL_GENERIC_TABLE Table, PVOID *RestartKey) {
    if (Table->TableRoot == nullptr) return nullptr;
    PRTL_SPLAY_LINKS next;
    if (*RestartKey == nullptr) {
        next = Leftmost(Table->TableRoot);
    } else {
        next = RtlRealSuccessor(static_cast<PRTL_SPLAY_LINKS>(*RestartKey));
        // At the end the key stays on the last element, so that asking again
        // still finds the end.
        if (next == nullptr) return nullptr;
    }
    *RestartKey = next;
    return UserDataOf(next);
}

PVOID NTAPI RtlGetElementGenericTable(PRTL_GENERIC_TABLE Table, ULONG I) {
    const ULONG count = Table->NumberGenericTableElements;
    if (I >= count) return nullptr;
    // Positions count from 1 here, 0 being the list head, as the table's
    // WhichOrderedElement does.
    const ULONG wanted = I + 1;
    ULONG position = Table->WhichOrderedElement;
    PLIST_ENTRY entry = Table->OrderedPointer;
    // Start from whichever of the head, the remembered element and the
    // tail is nearest.
    const ULONG from_head = wanted;
    const ULONG from_here = position == 0 ? count + 1 : (wanted > position ? wanted - position : position - wanted);
    const ULONG from_tail = count - wanted;
    if (from_head <= from_here && from_head <= from_tail) {
        entry = &Table->InsertOrderList;
        position = 0;
    } else if (from_tail < from_here) {
        entry = Table->InsertOrderList.Blink;
        position = count;
    }
    while (position < wanted) {
        entry = entry->Flink;
        ++position;
    }
    while (position > wanted) {
        entry = entry->Blink;
        --position;
    }
    Table->OrderedPointer = entry;
    Table->WhichOrderedElement = wanted;
    return UserDataOf(HeaderOf(entry));
}

ULONG NTAPI RtlNumberGenericTableElements(PRTL_GENERIC_TABLE Table) { return Table->NumberGenericTableElements; }

BOOLEAN NTAPI RtlIsGenericTableEmpty(PRTL_GENERIC_TABLE Table) { return Table->TableRoot == nullptr ? TRUE : FALSE; }
