#include "processgroupmanager.h"

#include "Log.h"
#include "qrprocess.h"

#include <memory>

namespace {

char const kModule[] = "processgroupmanager";

// Takes the member at `position` out of `group`; the caller owns it (null when the sequence
// held a null pointer).
std::unique_ptr<ProcessInfo> gTakeOut(ProcessGroup& group, int position) {
    // A negative position becomes a huge one, which the sequence refuses with RWBoundsErr.
    return std::unique_ptr<ProcessInfo>(static_cast<ProcessInfo*>(group.removeAt(static_cast<size_t>(position))));
}

}  // namespace

// ---- ProcessInfo ----

ProcessInfo::ProcessInfo(int id) : pid(id) {}

ProcessInfo::~ProcessInfo() = default;

// ---- gKillProcess ----

bool gKillProcess(ProcessInfo& info) {
    // The "%d" of each text is written as it stands, with the pid after it.
    switch (gQRPKillProcess(info.pid)) {
        case 0:
            COLLOQUY_LOG_AT(nLog::nBasic::sExecutionTag_, kModule, 54, "gKillProcess(%d) killed", info.pid);
            return true;
        case 1:
            COLLOQUY_LOG_AT(nLog::nBasic::sExecutionTag_, kModule, 50, "gKillProcess(%d) already terminated", info.pid);
            return false;
        case 2:
            COLLOQUY_LOG_AT(nLog::nBasic::sExecutionTag_, kModule, 62, "gKillProcess(%d) error cannot find", info.pid);
            return false;
        case 3:
            COLLOQUY_LOG_AT(nLog::nBasic::sExecutionTag_, kModule, 58, "gKillProcess(%d) error cannot kill", info.pid);
            return false;
        default:
            COLLOQUY_LOG_AT(nLog::nBasic::sExecutionTag_, kModule, 66, "gKillProcess(%d) unknown error", info.pid);
            return false;
    }
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
    std::unique_ptr<ProcessInfo> const info = gTakeOut(*this, position);
    return info ? info->pid : 0;
}

bool ProcessGroup::TerminateGroupZ0() {
    bool result = true;
    while (!isEmpty()) {
        std::unique_ptr<ProcessInfo> const info = gTakeOut(*this, static_cast<int>(entries() - 1));
        if (!info) break;
        if (!gKillProcess(*info)) result = false;
    }
    return result;
}

bool ProcessGroup::TerminateElementZ0(int position) {
    std::unique_ptr<ProcessInfo> const info = gTakeOut(*this, position);
    if (!info) {
        COLLOQUY_LOG_AT(nLog::nBasic::sErrorTag_, kModule, 80);
        return false;
    }
    return gKillProcess(*info);
}

// ---- ProcessesGroupManager ----

ProcessesGroupManager::ProcessesGroupManager() = default;

ProcessesGroupManager::~ProcessesGroupManager() {
    // Groups still registered are forgotten without killing: their members, then the groups
    // and names.
    RWHashDictionaryIterator next(*this);
    while (next()) static_cast<ProcessGroup*>(next.value())->clearAndDestroy();
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
            COLLOQUY_LOG_AT(nLog::nBasic::sTraceTag_, kModule, 122, "ProcessesGroupManager::AddProcessToGroup already in",
                            name, pid);
            created->clearAndDestroy();
            return nullptr;
        }
        key.release();  // both belong to the dictionary now
        group = created.release();
    } else {
        group->AddProcess(pid);
    }
    COLLOQUY_LOG_AT(nLog::nBasic::sTraceTag_, kModule, 130, "ProcessesGroupManager::AddProcessToGroup ", name, pid,
                    static_cast<void const*>(group));
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
        COLLOQUY_LOG_AT(nLog::nBasic::sErrorTag_, kModule, 176, "ProcessesGroupManager::TerminateGroup unknown group ",
                        name);
        return false;
    }
    COLLOQUY_LOG_AT(nLog::nBasic::sExecutionTag_, kModule, 171, "ProcessesGroupManager::TerminateGroup terminating",
                    name);
    bool const result = group->TerminateGroupZ0();
    RWCollectableString const key(name);
    removeAndDestroy(&key);  // the stored name and the group
    return result;
}
