// Named groups of process ids, ended together.
//
// A host that starts child processes files each child's id under a group name with
// ProcessesGroupManager::AddProcessToGroup, and later ends the whole group with
// TerminateGroup, which kills the members newest first (through gQRPKillProcess), logs one
// Execution record per process and forgets the group. Nothing watches the processes: one
// that ends by itself stays listed until it is removed or its group is terminated.
// One thread at a time uses a manager and its groups.
#ifndef COLLOQUY_PROCESSGROUPMANAGER_H
#define COLLOQUY_PROCESSGROUPMANAGER_H

#include "cplatformdefs.h"
#include "rwcollect.h"
#include "rwcstring.h"
#include "rwhashdict.h"
#include "rwordered.h"

// One process of a group. Equality is identity (the collectable default).
class COLLOQUY_EXPORT ProcessInfo : public RWCollectable {
  public:
    ProcessInfo(int pid);
    ~ProcessInfo() override;

    int pid;
};

// The processes of one group, in order of addition. The group owns its ProcessInfo
// elements, but its destructor does not destroy them: a group is emptied (terminated or
// its members removed) before it is destroyed.
class COLLOQUY_EXPORT ProcessGroup : public RWOrdered {
  public:
    ProcessGroup();
    ~ProcessGroup() override;

    // Appends a new member and returns its position.
    int AddProcess(int pid);
    // Takes out and destroys the member at `position` without signalling it; returns its pid.
    // RWBoundsErr when the position is out of range.
    int RemoveProcess(int position);
    // Kills every member, newest first, and empties the group. False when any kill failed
    // (a process that had already ended counts as a failure); every member is tried.
    bool TerminateGroupZ0();
    // Takes out the member at `position`, kills and destroys it; the kill's result.
    // RWBoundsErr when the position is out of range.
    bool TerminateElementZ0(int position);

    int mGroupFlag;  // 1 at first; set by the three-argument AddProcessToGroup, kept for the host
};

// Kills one process and logs the outcome at the Execution tag; true only when it was killed.
COLLOQUY_EXPORT bool gKillProcess(ProcessInfo& info);

// Groups by name (case-sensitive). The manager owns each name and group; terminating a
// group destroys both, and so does destroying the manager (without killing anything).
class COLLOQUY_EXPORT ProcessesGroupManager : public RWHashDictionary {
  public:
    ProcessesGroupManager();
    ~ProcessesGroupManager() override;
    ProcessesGroupManager(ProcessesGroupManager const&) = delete;
    ProcessesGroupManager& operator=(ProcessesGroupManager const&) = delete;

    // The group of that name, or null.
    ProcessGroup* GetProcessGroup(RWCString& name);
    // Adds `pid` to the group `name`, which is created when it does not exist; the group.
    ProcessGroup* AddProcessToGroup(RWCString& name, int& pid);
    // The same, then sets the group's mGroupFlag to `flag`.
    ProcessGroup* AddProcessToGroup(RWCString& name, int& pid, int flag);
    // Kills all processes of the group and forgets the group; false when the group is
    // unknown or any kill failed.
    bool TerminateGroup(RWCString& name);
};

#endif
