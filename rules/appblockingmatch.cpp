// The digest match of the app-blocking store.
#include "rules/store.h"

#include "base/exports.h"
#include "base/locks.h"
#include "base/trace.h"
#include "policy/records.h"

TEXPRT_ASSERT_LAYOUT32(sizeof(AppBlockingResult) == 32);
TEXPRT_ASSERT_LAYOUT32(FIELD_OFFSET(AppBlockingResult, RuleId) == 12);

NTSTATUS MatchAppBlockingRuleSet(const UCHAR *Digest, const ProcessAppBlockingRuleSet *Set,
                                 AppBlockingResult *Result) {
    if (Digest == nullptr || Set == nullptr || Result == nullptr) return STATUS_INVALID_PARAMETER;
    Result->Matched = 0;
    // Every rule is visited, and each rule with digests clears Matched before
    // testing its own list: the verdict and the identity are the last rule's.
    for (ULONG Index = 0; Index < Set->RuleCount; ++Index) {
        const AppBlockingRule *Rule = &Set->Rules[Index];
        if (Rule->RuleType != AppBlockingProcessRuleType) return STATUS_INVALID_PARAMETER;
        if (Rule->Hashes == nullptr) return STATUS_INVALID_PARAMETER;
        if (Rule->HashCount != 0) {
            Result->Matched = 0;
            for (ULONG Hash = 0; Hash < Rule->HashCount; ++Hash) {
                const UCHAR *Listed = Rule->Hashes[Hash];
                if (Listed == nullptr) return STATUS_INVALID_PARAMETER;
                ULONG Word = 0;
                for (; Word < AppBlockingDigestBytes / sizeof(ULONG); ++Word)
                    if (PolicyUlong(Digest + Word * 4) != PolicyUlong(Listed + Word * 4)) break;
                if (Word == AppBlockingDigestBytes / sizeof(ULONG)) {
                    Result->Matched = 1;
                    break;
                }
            }
        }
        Result->RuleSeen = 1;
        Result->PolicyTag = Rule->PolicyTag;
        RtlCopyMemory(Result->RuleId, Rule->RuleId, sizeof(Result->RuleId));
        Result->Reserved = 0;
    }
    return STATUS_SUCCESS;
}

TEXPRT_EXPORT NTSTATUS NTAPI TcTFeMatchesProcessAppBlockingRuleSet(const UCHAR *Digest, AppBlockingResult *Result) {
    EXPORT_ENTRY(TcTFeMatchesProcessAppBlockingRuleSet);
    if (Result == nullptr) {
        TRACE_STATUS(STATUS_INVALID_PARAMETER);
        return STATUS_INVALID_PARAMETER;
    }
    Result->Matched = 0;
    NTSTATUS Status;
    {
        // The set pointer is read only under the lock: a swap cannot free it now.
        SharedResourceGuard Guard(&AppBlockingRuleLock);
        Status = MatchAppBlockingRuleSet(Digest, AppBlockingRuleSet, Result);
    }
    if (!NT_SUCCESS(Status)) TRACE_STATUS(Status);
    return Status;
}
