#pragma once
// What one client may read and change, for who serves it.

#include <memory>
#include <string>

#include "settings/GroupNameCollection.h"

namespace korlo::settings::server
{

/// What a client may do, at one moment: an answer stays the same for as long as the object lives. Two kinds of question
/// are answered, because a group's name may hold any byte: one about a group, whose name is taken as it stands, and one
/// about an entry of a group list, which is a pattern where it holds `*`.
///
/// Restricted groups (GroupDiscriminator) are asked about like others when they are read. No client changes them
/// whatever is answered here: drop them from a change before you ask.
///
/// Thread safety: all methods, from any thread.
class IAccessRights
{
public:
    virtual ~IAccessRights() = default;

    /// True when no group and no entry need be asked about before it is read. False says nothing.
    virtual bool MayReadEverything() const = 0;

    /// Where this is false, everything that the client is sent is to look as if there were no such group.
    virtual bool MayRead(const std::string& group) const = 0;

    /// True when the client may read everything that the entry can match, whether there is such a group or not: what
    /// decides about entries of the record of erased groups, and about what others are subscribed to.
    virtual bool MayReadAllOf(const std::string& nameOrPattern) const = 0;

    /// True when neither a group nor an entry need be asked about before it is changed. False says nothing.
    virtual bool MayChangeEverything() const = 0;

    /// May the client merge into the group, or put it in the place of another. The record of erased groups is one like
    /// any other to who asks; only a client that may change everything may change it.
    virtual bool MayChange(const std::string& group) const = 0;

    /// May the client overwrite, or restore to its defaults, everything that the entry can match, whether there is such
    /// a group or not. So the answer tells nothing about groups that the client may not read.
    virtual bool MayChangeAllOf(const std::string& nameOrPattern) const = 0;
};

/// One client. What it may do changes when the device's rules do, while it is connected; so GetRights is asked once at
/// the start of each request and of each notification, and one set of rights decides about all of it.
///
/// Thread safety: GetRights from any thread, for a notification is made on the thread that made the change; OnRefused
/// from the thread that serves the client's requests.
class IClientAccess
{
public:
    virtual ~IClientAccess() = default;

    /// What the client may do now; never null. An object that was returned before says what it said.
    virtual std::shared_ptr<const IAccessRights> GetRights() const = 0;

    /// Hears that a change was refused as a whole. Must not call the handler that tells.
    /// @param operation as the protocol's command is named, with its option: "merge", "merge nopersist",
    ///        "test-and-merge", "overwrite", "restore".
    /// @param refused the groups and entries that were not allowed, as the client named them.
    virtual void OnRefused(const std::string& operation, const GroupNameCollection& refused) = 0;
};

/// A client that may do everything: what serves where nobody has made rules.
///
///     FullAccess access;
///     access.GetRights()->MayReadEverything();  // true
///
/// Thread safety: all methods, from any thread; there is no state.
class FullAccess : public IClientAccess, private IAccessRights
{
public:
    FullAccess() = default;
    FullAccess(const FullAccess&) = delete;
    FullAccess& operator=(const FullAccess&) = delete;

    /// Costs no allocation and no count; valid as long as this object is.
    std::shared_ptr<const IAccessRights> GetRights() const override { return {std::shared_ptr<void>(), this}; }

    /// Never happens.
    void OnRefused(const std::string&, const GroupNameCollection&) override {}

private:
    bool MayReadEverything() const override { return true; }
    bool MayRead(const std::string&) const override { return true; }
    bool MayReadAllOf(const std::string&) const override { return true; }
    bool MayChangeEverything() const override { return true; }
    bool MayChange(const std::string&) const override { return true; }
    bool MayChangeAllOf(const std::string&) const override { return true; }
};

}  // namespace korlo::settings::server
