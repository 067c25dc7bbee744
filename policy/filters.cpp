// Filter records of the monitor policy: the five list kinds that narrow a
// rule (patterns, actor processes, actor usernames, arguments, parent
// processes), their compile into upper-cased text and flag bits, and the
// release of a filter. Everything that can be settled once per pattern is
// settled here, so that a match finds its text and flags ready.
#include "policy/monitor.h"

#include "base/strings.h"
#include "base/trace.h"
#include "diagnostics/eventlog.h"

namespace {

namespace Format = MonitorFormat;

template <typename Element>
VOID FreeTextElements(Element **Array, ULONG *Count) {
    if (*Array != nullptr) {
        for (ULONG Index = 0; Index < *Count; ++Index) {
            FreeUnicodeString(&(*Array)[Index].Text);
            RtlZeroMemory(&(*Array)[Index], sizeof(Element));
        }
        PoolFree(*Array);
        *Array = nullptr;
    }
    *Count = 0;
}

template <typename Element>
VOID FreePlainElements(Element **Array, ULONG *Count) {
    PoolFree(*Array);
    *Array = nullptr;
    *Count = 0;
}

// Backslashes in the file's text, after passing over one leading backslash.
ULONG CountSeparators(PCUNICODE_STRING Source) {
    const WCHAR *Text = Source->Buffer;
    if (*Text == '\\') ++Text;
    ULONG Count = 0;
    while ((Text = PlatformWcschr(Text, '\\')) != nullptr) {
        ++Count;
        ++Text;
    }
    return Count;
}

BOOLEAN HasWildcards(PCUNICODE_STRING Source) {
    UNICODE_STRING Name = *Source;
    return FsRtlDoesNameContainWildCards(&Name);
}

// Flags of the kinds compared by whole text or final name.
ULONG TextFlags(PCUNICODE_STRING Stored, PCUNICODE_STRING Source) {
    ULONG Flags = 0;
    if (PlatformWcschr(Stored->Buffer, '\\') != nullptr) Flags |= PatternHasBackslash;
    if (HasWildcards(Source)) Flags |= PatternWildcards;
    return Flags;
}

// What every text list shares: walk Count records of one magic, hand each
// string to Add, and count the bytes. Any failure releases the filter.
template <typename AddRoutine, typename ReleaseRoutine>
NTSTATUS LoadTextRecords(PUCHAR Records, ULONG Count, ULONG Available, ULONG Magic, PCWSTR Label,
                         ULONG *SizeOut, AddRoutine Add, ReleaseRoutine Release) {
    ULONG Offset = 0;
    NTSTATUS Status = STATUS_SUCCESS;
    for (ULONG Index = 0; Index < Count; ++Index) {
        if (!PolicyFits(Offset, Format::TextRecord::Size, Available)) {
            Status = STATUS_DATA_ERROR;
            break;
        }
        PUCHAR Record = Records + Offset;
        const ULONG Found = PolicyUlong(Record + Format::TextRecord::Magic);
        if (Found != Magic) {
            ReportPolicyRecordMismatch(Label, Found, Magic & Format::MagicVersionMask);
            Status = STATUS_INVALID_PARAMETER;
            break;
        }
        PolicyText Text;
        Status = ReadPolicyString(Record + Format::TextRecord::Text, Record + Format::TextRecord::Size,
                                  Available - Offset - Format::TextRecord::Size, TRUE, &Text);
        if (!NT_SUCCESS(Status)) break;
        Status = Add(&Text.View);
        if (!NT_SUCCESS(Status)) break;
        Offset += Format::TextRecord::Size + Text.View.MaximumLength;
        *SizeOut = Offset;
    }
    if (!NT_SUCCESS(Status)) {
        TRACE_STATUS(Status);
        Release();
    }
    return Status;
}

}  // namespace

NTSTATUS ReadPolicyString(PUCHAR Header, PUCHAR Text, ULONG TextAvailable, BOOLEAN Terminated, PolicyText *Out) {
    const USHORT Length = PolicyUshort(Header + Format::StringHeader::Length);
    const USHORT MaximumLength = PolicyUshort(Header + Format::StringHeader::MaximumLength);
    if (Length > MaximumLength || (Length & 1) != 0 || (MaximumLength & 1) != 0 || MaximumLength > TextAvailable)
        return STATUS_DATA_ERROR;
    if (Terminated) {
        ULONG Index = 0;
        while (Index < MaximumLength / sizeof(WCHAR) && PolicyUshort(Text + Index * sizeof(WCHAR)) != 0) ++Index;
        if (Index == MaximumLength / sizeof(WCHAR)) return STATUS_DATA_ERROR;
    }
    PWCH Characters = (PWCH)Text;
    if (((ULONG_PTR)Text & 1) != 0 && MaximumLength != 0) {
        Out->Copy = PoolAlloc(DefaultPool, MaximumLength, TagFilter);
        if (Out->Copy == nullptr) return STATUS_INSUFFICIENT_RESOURCES;
        RtlCopyMemory(Out->Copy, Text, MaximumLength);
        Characters = (PWCH)Out->Copy;
    }
    // The slot takes the text's address; only its low 32 bits fit on a
    // 64-bit machine, and nothing reads it back.
    PolicyWriteUlong(Header + Format::StringHeader::TextReference, (ULONG)(ULONG_PTR)Text);
    Out->View.Length = Length;
    Out->View.MaximumLength = MaximumLength;
    Out->View.Buffer = Characters;
    return STATUS_SUCCESS;
}

TimeOfDay DecodeTimeOfDay(ULONGLONG Word) {
    // No range check: the bytes are taken as they stand.
    TimeOfDay Time;
    Time.Second = (SHORT)((Word >> Format::TimeSecondShift) & Format::TimePartMask);
    Time.Minute = (SHORT)((Word >> Format::TimeMinuteShift) & Format::TimePartMask);
    Time.Hour = (SHORT)((Word >> Format::TimeHourShift) & Format::TimePartMask);
    return Time;
}

NTSTATUS CompilePolicyText(PUNICODE_STRING Destination, PCUNICODE_STRING Source) {
    RtlZeroMemory(Destination, sizeof(*Destination));
    UNICODE_STRING Copy;
    Copy.Length = Source->Length;
    // 16-bit arithmetic: a Length of 0xFFFE wraps to 0, and the pool gives
    // nothing for nothing.
    Copy.MaximumLength = (USHORT)(Source->Length + sizeof(WCHAR));
    Copy.Buffer = (PWCH)PoolAlloc(DefaultPool, Copy.MaximumLength, TagFilter);
    if (Copy.Buffer == nullptr) return STATUS_INSUFFICIENT_RESOURCES;
    Copy.Buffer[Copy.Length / sizeof(WCHAR)] = 0;
    const NTSTATUS Status = RtlUpcaseUnicodeString(&Copy, Source, FALSE);
    if (!NT_SUCCESS(Status)) {
        PoolFree(Copy.Buffer);
        return Status;
    }
    *Destination = Copy;
    return STATUS_SUCCESS;
}

NTSTATUS CompileFilterPattern(FilterPatternElement *Element, PCUNICODE_STRING Source) {
    NTSTATUS Status = CompilePolicyText(&Element->Text, Source);
    if (!NT_SUCCESS(Status)) return Status;
    Element->PatternFlags = 0;
    Element->SeparatorCount = CountSeparators(Source);
    // Wildcards are looked for one component at a time, from the start.
    UNICODE_STRING Remaining = *Source;
    while (Remaining.Length != 0) {
        UNICODE_STRING First, Rest;
        FsRtlDissectName(Remaining, &First, &Rest);
        if (FsRtlDoesNameContainWildCards(&First)) {
            Element->PatternFlags |= PatternWildcards;
            break;
        }
        Remaining = Rest;
    }
    PUNICODE_STRING Text = &Element->Text;
    if (Text->Length != 0 && Text->Buffer[0] == '\\') {
        // A rooted pattern is stored without its backslash; the flag says
        // it was there.
        RtlMoveMemory(Text->Buffer, Text->Buffer + 1, Text->MaximumLength - sizeof(WCHAR));
        Text->Length -= sizeof(WCHAR);
        Text->MaximumLength -= sizeof(WCHAR);
        Element->PatternFlags |= PatternRooted;
    } else {
        UNICODE_STRING First, Rest;
        FsRtlDissectName(*Source, &First, &Rest);
        if (Rest.Length != 0) Element->PatternFlags |= PatternRelativePath;
    }
    return STATUS_SUCCESS;
}

NTSTATUS CompileActorProcessFilter(ActorProcessElement *Element, PCUNICODE_STRING Source) {
    const NTSTATUS Status = CompilePolicyText(&Element->Text, Source);
    if (!NT_SUCCESS(Status)) return Status;
    Element->SeparatorCount = CountSeparators(Source);
    Element->PatternFlags = TextFlags(&Element->Text, Source);
    return STATUS_SUCCESS;
}

NTSTATUS CompileArgumentFilter(TextFilterElement *Element, PCUNICODE_STRING Source) {
    const NTSTATUS Status = CompilePolicyText(&Element->Text, Source);
    if (!NT_SUCCESS(Status)) return Status;
    Element->PatternFlags = TextFlags(&Element->Text, Source);
    return STATUS_SUCCESS;
}

NTSTATUS CompileParentProcessFilter(TextFilterElement *Element, PCUNICODE_STRING Source) {
    return CompileArgumentFilter(Element, Source);
}

NTSTATUS CompileNetworkAddressFilter(TextFilterElement *Element, PCUNICODE_STRING Source) {
    const NTSTATUS Status = CompilePolicyText(&Element->Text, Source);
    if (!NT_SUCCESS(Status)) return Status;
    // An address never compares by final name: only the wildcard bit.
    Element->PatternFlags = HasWildcards(Source) ? PatternWildcards : 0;
    return STATUS_SUCCESS;
}

NTSTATUS InitRuleFilter(RuleFilter *Filter, ULONG Conditions, ULONG ObjectKind) {
    if (Filter == nullptr || (Conditions & Format::FilterConditions) == 0) return STATUS_INVALID_PARAMETER;
    RtlZeroMemory(Filter, sizeof(*Filter));
    Filter->Conditions = Conditions;
    Filter->ObjectKind = ObjectKind;
    return STATUS_SUCCESS;
}

NTSTATUS InitFileRuleFilter(RuleFilter *Filter, ULONG Conditions, ULONG ObjectKind) {
    // An object-kind condition must name a kind.
    if ((Conditions & ConditionObjectKind) != 0 && (ObjectKind & Format::ObjectKindMask) == 0)
        return STATUS_INVALID_PARAMETER;
    return InitRuleFilter(Filter, Conditions, ObjectKind);
}

NTSTATUS InitProcessRuleFilter(RuleFilter *Filter, ULONG Conditions) {
    if (Filter == nullptr) return STATUS_INVALID_PARAMETER;
    RtlZeroMemory(Filter, sizeof(*Filter));
    Filter->Conditions = Conditions;
    return STATUS_SUCCESS;
}

NTSTATUS InitNetworkRuleFilter(NetworkRuleFilter *Filter, ULONG Conditions, ULONG ObjectKind) {
    if (Filter == nullptr || (Conditions & Format::FilterConditions) == 0) return STATUS_INVALID_PARAMETER;
    RtlZeroMemory(Filter, sizeof(*Filter));
    Filter->Conditions = Conditions;
    Filter->ObjectKind = ObjectKind;
    return STATUS_SUCCESS;
}

VOID FreeNetworkRuleFilter(NetworkRuleFilter *Filter) {
    if (Filter == nullptr) return;
    FreeTextElements(&Filter->ActorProcesses, &Filter->ActorProcessCount);
    FreePlainElements(&Filter->ActorUsernames, &Filter->ActorUsernameCount);
    FreeTextElements(&Filter->Addresses[0], &Filter->AddressCount[0]);
    FreePlainElements(&Filter->Ports0, &Filter->PortCount0);
    FreePlainElements(&Filter->PortRanges0, &Filter->PortRangeCount0);
    FreeTextElements(&Filter->Addresses[1], &Filter->AddressCount[1]);
    FreePlainElements(&Filter->Ports1, &Filter->PortCount1);
    FreePlainElements(&Filter->PortRanges1, &Filter->PortRangeCount1);
    RtlZeroMemory(Filter, sizeof(*Filter));
}

VOID FreeRuleFilter(PVOID Filter, ULONG Category) {
    if (Filter == nullptr) return;
    if (Category == CategoryNetwork) {
        FreeNetworkRuleFilter((NetworkRuleFilter *)Filter);
        return;
    }
    auto *Generic = (RuleFilter *)Filter;
    FreeTextElements(&Generic->FilterPatterns, &Generic->FilterPatternCount);
    FreeTextElements(&Generic->ActorProcesses, &Generic->ActorProcessCount);
    FreePlainElements(&Generic->ActorUsernames, &Generic->ActorUsernameCount);
    FreeTextElements(&Generic->Arguments, &Generic->ArgumentCount);
    FreeTextElements(&Generic->ParentProcesses, &Generic->ParentProcessCount);
    RtlZeroMemory(Generic, sizeof(*Generic));
}

NTSTATUS LoadFilterPatterns(RuleFilter *Filter, PUCHAR Records, ULONG Count, ULONG Available, ULONG *SizeOut) {
    // The one list that releases nothing on a bad call, and takes an empty
    // list as a success.
    if (Filter == nullptr || Records == nullptr || SizeOut == nullptr) {
        TRACE_STATUS(STATUS_INVALID_PARAMETER);
        return STATUS_INVALID_PARAMETER;
    }
    *SizeOut = 0;
    if (Count == 0) return STATUS_SUCCESS;
    return LoadTextRecords(
        Records, Count, Available, Format::PatternMagic, WIDE("Filter Pattern Header"), SizeOut,
        [Filter](PCUNICODE_STRING Text) {
            return AppendElement(&Filter->FilterPatterns, &Filter->FilterPatternCount,
                                 [Text](FilterPatternElement *Element) { return CompileFilterPattern(Element, Text); });
        },
        [Filter] { FreeRuleFilter(Filter, CategoryFile); });
}

NTSTATUS LoadActorProcessFilters(PVOID Filter, ULONG Category, PUCHAR Records, ULONG Count, ULONG Available,
                                 ULONG *SizeOut) {
    auto Release = [Filter, Category] { FreeRuleFilter(Filter, Category); };
    if (Filter == nullptr || Records == nullptr || Count == 0 || SizeOut == nullptr) {
        TRACE_STATUS(STATUS_INVALID_PARAMETER);
        Release();
        return STATUS_INVALID_PARAMETER;
    }
    *SizeOut = 0;
    ActorProcessElement **Array;
    ULONG *Counter;
    if (Category == CategoryNetwork) {
        Array = &((NetworkRuleFilter *)Filter)->ActorProcesses;
        Counter = &((NetworkRuleFilter *)Filter)->ActorProcessCount;
    } else {
        Array = &((RuleFilter *)Filter)->ActorProcesses;
        Counter = &((RuleFilter *)Filter)->ActorProcessCount;
    }
    return LoadTextRecords(
        Records, Count, Available, Format::ActorProcessMagic, WIDE("Actor Process Filter Header"), SizeOut,
        [Array, Counter](PCUNICODE_STRING Text) {
            return AppendElement(Array, Counter,
                                 [Text](ActorProcessElement *Element) { return CompileActorProcessFilter(Element, Text); });
        },
        Release);
}

NTSTATUS LoadActorUsernameFilters(PVOID Filter, ULONG Category, PUCHAR Records, ULONG Count, ULONG Available,
                                  ULONG *SizeOut) {
    if (Filter == nullptr || Records == nullptr || Count == 0 || SizeOut == nullptr) {
        TRACE_STATUS(STATUS_INVALID_PARAMETER);
        FreeRuleFilter(Filter, Category);
        return STATUS_INVALID_PARAMETER;
    }
    *SizeOut = 0;
    UCHAR **Array;
    ULONG *Counter;
    if (Category == CategoryNetwork) {
        Array = &((NetworkRuleFilter *)Filter)->ActorUsernames;
        Counter = &((NetworkRuleFilter *)Filter)->ActorUsernameCount;
    } else {
        Array = &((RuleFilter *)Filter)->ActorUsernames;
        Counter = &((RuleFilter *)Filter)->ActorUsernameCount;
    }
    NTSTATUS Status = STATUS_SUCCESS;
    for (ULONG Index = 0; Index < Count; ++Index) {
        const ULONG Offset = Index * Format::NumberRecord::Size;
        if (!PolicyFits(Offset, Format::NumberRecord::Size, Available)) {
            Status = STATUS_DATA_ERROR;
            break;
        }
        const ULONG Found = PolicyUlong(Records + Offset + Format::NumberRecord::Magic);
        if (Found != Format::ActorUsernameMagic) {
            ReportPolicyRecordMismatch(WIDE("Actor Username Filter Header"), Found,
                                       Format::ActorUsernameMagic & Format::MagicVersionMask);
            Status = STATUS_INVALID_PARAMETER;
            break;
        }
        // Only the low byte of the value is kept.
        const UCHAR Value = (UCHAR)PolicyUlong(Records + Offset + Format::NumberRecord::Value);
        Status = AppendElement(Array, Counter, [Value](UCHAR *Element) {
            *Element = Value;
            return STATUS_SUCCESS;
        });
        if (!NT_SUCCESS(Status)) break;
        *SizeOut = Offset + Format::NumberRecord::Size;
    }
    if (!NT_SUCCESS(Status)) {
        TRACE_STATUS(Status);
        FreeRuleFilter(Filter, Category);
    }
    return Status;
}

namespace {

// Arguments and parent processes belong to whitelist filters alone, and
// release as one.
NTSTATUS LoadWhiteListTextFilters(RuleFilter *Filter, PUCHAR Records, ULONG Count, ULONG Available,
                                  ULONG *SizeOut, ULONG Magic, PCWSTR Label, TextFilterElement **Array,
                                  ULONG *Counter) {
    if (Filter == nullptr || Records == nullptr || Count == 0 || SizeOut == nullptr) {
        TRACE_STATUS(STATUS_INVALID_PARAMETER);
        FreeRuleFilter(Filter, CategoryWhiteList);
        return STATUS_INVALID_PARAMETER;
    }
    *SizeOut = 0;
    return LoadTextRecords(
        Records, Count, Available, Magic, Label, SizeOut,
        [Array, Counter](PCUNICODE_STRING Text) {
            return AppendElement(Array, Counter,
                                 [Text](TextFilterElement *Element) { return CompileArgumentFilter(Element, Text); });
        },
        [Filter] { FreeRuleFilter(Filter, CategoryWhiteList); });
}

}  // namespace

NTSTATUS LoadArgumentFilters(RuleFilter *Filter, PUCHAR Records, ULONG Count, ULONG Available, ULONG *SizeOut) {
    return LoadWhiteListTextFilters(Filter, Records, Count, Available, SizeOut, Format::ArgumentMagic,
                                    WIDE("Argument Filter Header"), Filter ? &Filter->Arguments : nullptr,
                                    Filter ? &Filter->ArgumentCount : nullptr);
}

NTSTATUS LoadParentProcessFilters(RuleFilter *Filter, PUCHAR Records, ULONG Count, ULONG Available,
                                  ULONG *SizeOut) {
    return LoadWhiteListTextFilters(Filter, Records, Count, Available, SizeOut, Format::ParentProcessMagic,
                                    WIDE("Parent Process Filter Header"), Filter ? &Filter->ParentProcesses : nullptr,
                                    Filter ? &Filter->ParentProcessCount : nullptr);
}

// ---------------------------------------------------------------- network lists

namespace {

// Ports and ranges: fixed 8-byte records, stored as bare 16-bit arrays so
// that a match is a linear scan. The two kinds are one size and have their
// magic in one place; Decode reads the rest of a record.
static_assert(Format::NumberRecord::Size == Format::PortRangeRecord::Size &&
              Format::NumberRecord::Magic == Format::PortRangeRecord::Magic);
constexpr ULONG NetworkNumberRecordSize = Format::NumberRecord::Size;

template <typename Element, typename DecodeRoutine>
NTSTATUS LoadNumberRecords(NetworkRuleFilter *Filter, PUCHAR Records, ULONG Count, ULONG Available,
                           ULONG *SizeOut, ULONG Magic, PCWSTR Label, Element **Array, ULONG *Counter,
                           DecodeRoutine Decode) {
    NTSTATUS Status = STATUS_SUCCESS;
    for (ULONG Index = 0; Index < Count; ++Index) {
        const ULONG Offset = Index * NetworkNumberRecordSize;
        if (!PolicyFits(Offset, NetworkNumberRecordSize, Available)) {
            Status = STATUS_DATA_ERROR;
            break;
        }
        const PUCHAR Record = Records + Offset;
        const ULONG Found = PolicyUlong(Record + Format::NumberRecord::Magic);
        if (Found != Magic) {
            ReportPolicyRecordMismatch(Label, Found, Magic & Format::MagicVersionMask);
            Status = STATUS_INVALID_PARAMETER;
            break;
        }
        Status = AppendElement(Array, Counter, [Record, Decode](Element *Slot) {
            *Slot = Decode(Record);
            return STATUS_SUCCESS;
        });
        if (!NT_SUCCESS(Status)) break;
        *SizeOut = Offset + NetworkNumberRecordSize;
    }
    if (!NT_SUCCESS(Status)) {
        TRACE_STATUS(Status);
        FreeNetworkRuleFilter(Filter);
    }
    return Status;
}

BOOLEAN NetworkListArgumentsValid(NetworkRuleFilter *Filter, PUCHAR Records, ULONG Group, ULONG Count,
                                  ULONG *SizeOut) {
    if (Filter == nullptr || Records == nullptr || Group > 1 || Count == 0 || SizeOut == nullptr) {
        TRACE_STATUS(STATUS_INVALID_PARAMETER);
        FreeNetworkRuleFilter(Filter);
        return FALSE;
    }
    *SizeOut = 0;
    return TRUE;
}

}  // namespace

NTSTATUS LoadNetworkAddressFilters(NetworkRuleFilter *Filter, PUCHAR Records, ULONG Group, ULONG Count,
                                   ULONG Available, ULONG *SizeOut) {
    if (!NetworkListArgumentsValid(Filter, Records, Group, Count, SizeOut)) return STATUS_INVALID_PARAMETER;
    TextFilterElement **Array = &Filter->Addresses[Group];
    ULONG *Counter = &Filter->AddressCount[Group];
    return LoadTextRecords(
        Records, Count, Available, Format::NetworkAddressMagic, WIDE("Network Address Filter Header"), SizeOut,
        [Array, Counter](PCUNICODE_STRING Text) {
            return AppendElement(Array, Counter,
                                 [Text](TextFilterElement *Element) { return CompileNetworkAddressFilter(Element, Text); });
        },
        [Filter] { FreeNetworkRuleFilter(Filter); });
}

NTSTATUS LoadNetworkPortNumberFilters(NetworkRuleFilter *Filter, PUCHAR Records, ULONG Group, ULONG Count,
                                      ULONG Available, ULONG *SizeOut) {
    if (!NetworkListArgumentsValid(Filter, Records, Group, Count, SizeOut)) return STATUS_INVALID_PARAMETER;
    // A port word keeps its low 16 bits.
    return LoadNumberRecords(Filter, Records, Count, Available, SizeOut, Format::NetworkPortMagic,
                             WIDE("Network Port Number Filter Header"), Group == 0 ? &Filter->Ports0 : &Filter->Ports1,
                             Group == 0 ? &Filter->PortCount0 : &Filter->PortCount1,
                             [](const UCHAR *Record) {
                                 return (USHORT)PolicyUlong(Record + Format::NumberRecord::Value);
                             });
}

NTSTATUS LoadNetworkPortRangeFilters(NetworkRuleFilter *Filter, PUCHAR Records, ULONG Group, ULONG Count,
                                     ULONG Available, ULONG *SizeOut) {
    if (!NetworkListArgumentsValid(Filter, Records, Group, Count, SizeOut)) return STATUS_INVALID_PARAMETER;
    // A range is stored as it stands, even with its ends reversed.
    return LoadNumberRecords(Filter, Records, Count, Available, SizeOut, Format::NetworkPortRangeMagic,
                             WIDE("Network Port Range Filter Header"),
                             Group == 0 ? &Filter->PortRanges0 : &Filter->PortRanges1,
                             Group == 0 ? &Filter->PortRangeCount0 : &Filter->PortRangeCount1, [](const UCHAR *Record) {
                                 PortRange Range;
                                 Range.Low = PolicyUshort(Record + Format::PortRangeRecord::Low);
                                 Range.High = PolicyUshort(Record + Format::PortRangeRecord::High);
                                 return Range;
                             });
}
