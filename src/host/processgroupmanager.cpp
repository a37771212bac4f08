#include "processgroupmanager.h"

#include "Log.h"
#include "log_records.h"
#include "qrprocess.h"

#include <iterator>
#include <memory>

namespace {

namespace nLine = nLogRecords::nProcessGroups;

char const kModule[] = "processgroupmanager";

// Takes the member at `position` out of `group`; the caller owns it (null when the sequence
// held a null pointer).
std::unique_ptr<ProcessInfo> takeOut(ProcessGroup& group, int position) {
    // A negative position becomes a huge one, which the sequence refuses with RWBoundsErr.
    return std::unique_ptr<ProcessInfo>(static_cast<ProcessInfo*>(group.removeAt(static_cast<size_t>(position))));
}

}  // namespace

// ---- ProcessInfo ----

ProcessInfo::ProcessInfo(int id) : pid(id) {}

ProcessInfo::~ProcessInfo() = default;

// ---- gKillProcess ----

bool gKillProcess(ProcessInfo& info) {
    // What each result of gQRPKillProcess means: the Execution text (its "%d" written as it
    // stands, the pid after it), the line of its record, and whether it counts as killed.
    struct cOutcome {
        char const* text;
        int line;
        bool killed;
    };
    static constexpr cOutcome kOutcomes[] = {
        {"gKillProcess(%d) killed", nLine::kKilled, true},
        {"gKillProcess(%d) already terminated", nLine::kAlreadyTerminated, false},  // deliberately a failure
        {"gKillProcess(%d) error cannot find", nLine::kCannotFind, false},
        {"gKillProcess(%d) error cannot kill", nLine::kCannotKill, false},
    };
    static constexpr cOutcome kUnknown = {"gKillProcess(%d) unknown error", nLine::kUnknownKillError, false};
    int const code = gQRPKillProcess(info.pid);
    bool const known = code >= 0 && code < static_cast<int>(std::size(kOutcomes));
    cOutcome const& outcome = known ? kOutcomes[code] : kUnknown;
    COLLOQUY_LOG_AT(nLog::nBasic::sExecutionTag_, kModule, outcome.line, outcome.text, info.pid);
    return outcome.killed;
}

// ---- ProcessGroup ----

ProcessGroup::ProcessGroup() : mGroupFlag(1) {}

ProcessGroup::~ProcessGroup() = default;

int ProcessGroup::AddProcess(int pid) {
    auto* const info = new ProcessInfo(pid);
    insert(info);
    // Members compare by identity, so this is the position of that very object.
    return static_cast<int>(index(info));
}

int ProcessGroup::RemoveProcess(int position) {
    std::unique_ptr<ProcessInfo> const info = takeOut(*this, position);
    return info ? info->pid : 0;
}

bool ProcessGroup::TerminateGroupZ0() {
    bool result = true;
    while (!isEmpty()) {
        std::unique_ptr<ProcessInfo> const info = takeOut(*this, static_cast<int>(entries() - 1));
        if (!info) break;
        if (!gKillProcess(*info)) result = false;
    }
    return result;
}

bool ProcessGroup::TerminateElementZ0(int position) {
    std::unique_ptr<ProcessInfo> const info = takeOut(*this, position);
    if (!info) {
        COLLOQUY_LOG_AT(nLog::nBasic::sErrorTag_, kModule, nLine::kNoSuchMember);
        return false;
    }
    return gKillProcess(*info);
}

// ---- ProcessesGroupManager ----

ProcessesGroupManager::ProcessesGroupManager() = default;

ProcessesGroupManager::~ProcessesGroupManager() {
    // Groups still registered are forgotten without killing: their members, then the groups
    // and names (a name inserted without a group has nothing to empty).
    RWHashDictionaryIterator next(*this);
    while (next())
        if (auto* const group = static_cast<ProcessGroup*>(next.value())) group->clearAndDestroy();
    clearAndDestroy();
}

ProcessGroup* ProcessesGroupManager::GetProcessGroup(RWCString& name) {
    RWCollectableString const key(name);
    return static_cast<ProcessGroup*>(findValue(&key));
}

ProcessGroup* ProcessesGroupManager::AddProcessToGroup(RWCString& name, int& pid) {
    auto key = std::make_unique<RWCollectableString>(name);
    auto* group = static_cast<ProcessGroup*>(findValue(key.get()));
    if (group == nullptr) {
        auto created = std::make_unique<ProcessGroup>();
        created->AddProcess(pid);
        if (insertKeyAndValue(key.get(), created.get()) == nullptr) {
            COLLOQUY_LOG_AT(nLog::nBasic::sTraceTag_, kModule, nLine::kAlreadyInGroup,
                            "ProcessesGroupManager::AddProcessToGroup already in", name, pid);
            created->clearAndDestroy();
            return nullptr;
        }
        key.release();  // both belong to the dictionary now
        group = created.release();
    } else {
        group->AddProcess(pid);
    }
    COLLOQUY_LOG_AT(nLog::nBasic::sTraceTag_, kModule, nLine::kAddedToGroup,
                    "ProcessesGroupManager::AddProcessToGroup ", name, pid, static_cast<void const*>(group));
    return group;
}

ProcessGroup* ProcessesGroupManager::AddProcessToGroup(RWCString& name, int& pid, int flag) {
    ProcessGroup* const group = AddProcessToGroup(name, pid);
    if (group != nullptr) group->mGroupFlag = flag;
    return group;
}

bool ProcessesGroupManager::TerminateGroup(RWCString& name) {
    ProcessGroup* const group = GetProcessGroup(name);
    if (group == nullptr) {
        COLLOQUY_LOG_AT(nLog::nBasic::sErrorTag_, kModule, nLine::kUnknownGroup,
                        "ProcessesGroupManager::TerminateGroup unknown group ", name);
        return false;
    }
    COLLOQUY_LOG_AT(nLog::nBasic::sExecutionTag_, kModule, nLine::kTerminatingGroup,
                    "ProcessesGroupManager::TerminateGroup terminating", name);
    bool const result = group->TerminateGroupZ0();
    RWCollectableString const key(name);
    removeAndDestroy(&key);  // the stored name and the group
    return result;
}
