#pragma once
// What one client may read and change, for whoever serves it.

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

    /// True when the client may read every group and entry, and none need be asked about. False leaves it open.
    virtual bool MayReadEverything() const = 0;

    /// False: all that the client is sent must look as if there were no such group.
    virtual bool MayRead(const std::string& group) const = 0;

    /// True when the client may read everything that the entry can match, whether there is such a group or not. This
    /// decides whether it sees an entry of the record of erased groups, or what others are subscribed to.
    virtual bool MayReadAllOf(const std::string& nameOrPattern) const = 0;

    /// True when the client may change every group and entry, and none need be asked about. False leaves it open.
    virtual bool MayChangeEverything() const = 0;

    /// True when the client may merge into the group, or put it in the place of another. Ask about the record of erased
    /// groups, too; the answer is false unless the client may change everything.
    virtual bool MayChange(const std::string& group) const = 0;

    /// True when the client may overwrite, or restore to its defaults, everything that the entry can match, whether
    /// there is such a group or not. So the answer tells nothing about groups that the client may not read.
    virtual bool MayChangeAllOf(const std::string& nameOrPattern) const = 0;
};

/// One client. What it may do changes when the device's rules do, while it is connected; so GetRights is asked once at
/// the start of each request and of each notification, and one set of rights decides about all of it.
///
/// Thread safety: GetRights from any thread, since a notification is made on the thread that made the change; OnRefused
/// from the thread that serves the client's requests.
class IClientAccess
{
public:
    virtual ~IClientAccess() = default;

    /// What the client may do now; never null. An object that was returned earlier does not change.
    virtual std::shared_ptr<const IAccessRights> GetRights() const = 0;

    /// A change was refused as a whole. Must not call the handler that reports it.
    /// @param operation as the protocol's command is named, with its option: "merge", "merge nopersist",
    ///        "test-and-merge", "overwrite", "restore".
    /// @param refused the groups and entries that were not allowed, as the client named them.
    virtual void OnRefused(const std::string& operation, const GroupNameCollection& refused) = 0;
};

/// A client that may do everything, for servers without rules.
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
