// The run-time library's generic tables.
#include "internal.h"

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
PVOID NTAPI RtlInsertElementGenericTable(PRTL_GENERIC_TABLE, PVOID, CLONG, PBOOLEAN) { return nullptr; }
PVOID NTAPI RtlInsertElementGenericTableFull(PRTL_GENERIC_TABLE, PVOID, CLONG, PBOOLEAN, PVOID, TABLE_SEARCH_RESULT) {
    return nullptr;
}
BOOLEAN NTAPI RtlDeleteElementGenericTable(PRTL_GENERIC_TABLE, PVOID) { return FALSE; }
PVOID NTAPI RtlLookupElementGenericTable(PRTL_GENERIC_TABLE, PVOID) { return nullptr; }
PVOID NTAPI RtlLookupElementGenericTableFull(PRTL_GENERIC_TABLE, PVOID, PVOID *, TABLE_SEARCH_RESULT *) {
    return nullptr;
}
PVOID NTAPI RtlEnumerateGenericTable(PRTL_GENERIC_TABLE, BOOLEAN) { return nullptr; }
PVOID NTAPI RtlEnumerateGenericTableWithoutSplaying(PRTL_GENERIC_TABLE, PVOID *) { return nullptr; }
PVOID NTAPI RtlGetElementGenericTable(PRTL_GENERIC_TABLE, ULONG) { return nullptr; }
ULONG NTAPI RtlNumberGenericTableElements(PRTL_GENERIC_TABLE Table) { return Table->NumberGenericTableElements; }
BOOLEAN NTAPI RtlIsGenericTableEmpty(PRTL_GENERIC_TABLE Table) { return Table->TableRoot == nullptr; }
PRTL_SPLAY_LINKS NTAPI RtlSplay(PRTL_SPLAY_LINKS Links) { return Links; }
PRTL_SPLAY_LINKS NTAPI RtlDelete(PRTL_SPLAY_LINKS) { return nullptr; }
VOID NTAPI RtlDeleteNoSplay(PRTL_SPLAY_LINKS, PRTL_SPLAY_LINKS *) {}
PRTL_SPLAY_LINKS NTAPI RtlSubtreeSuccessor(PRTL_SPLAY_LINKS) { return nullptr; }
PRTL_SPLAY_LINKS NTAPI RtlSubtreePredecessor(PRTL_SPLAY_LINKS) { return nullptr; }
PRTL_SPLAY_LINKS NTAPI RtlRealSuccessor(PRTL_SPLAY_LINKS) { return nullptr; }
PRTL_SPLAY_LINKS NTAPI RtlRealPredecessor(PRTL_SPLAY_LINKS) { return nullptr; }
