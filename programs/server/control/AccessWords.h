#pragma once
// The words of the control door that are about access rules.

#include <string>
#include <vector>

#include "access/AccessControl.h"
#include "access/IUserDatabase.h"
#include "control/IControlWord.h"

namespace korlo::daemon
{

/// "access-check USER read|change GROUP": what decides whether a client on a Unix-domain socket, with the groups that
/// the system's database gives the user, may do that with the group, or with everything that a pattern matches.
///
/// Thread safety: as IControlWord.
class AccessCheckWord : public AnsweredWord
{
public:
    /// @param control, users borrowed.
    AccessCheckWord(AccessControl& control, const IUserDatabase& users) : _control(control), _users(users) {}

    core::IniFile Answer(const std::string& operands) override;

private:
    AccessControl& _control;
    const IUserDatabase& _users;
};

/// "access-reload": reads the rules anew; a mistake in them leaves those before in force. Answers once nothing more is
/// made by the rules before, which may take as long as a request does that waits for the disk.
///
/// Thread safety: as IControlWord.
class AccessReloadWord : public AnsweredWord
{
public:
    /// @param control, users borrowed.
    /// @param filesAndFolders of --access; empty where the server was given none.
    AccessReloadWord(AccessControl& control, const IUserDatabase& users,
                     const std::vector<std::string>& filesAndFolders)
        : _control(control),
          _users(users),
          _filesAndFolders(filesAndFolders)
    {
    }

    core::IniFile Answer(const std::string& operands) override;

private:
    AccessControl& _control;
    const IUserDatabase& _users;
    const std::vector<std::string> _filesAndFolders;
};

}  // namespace korlo::daemon
