#include "common/GroupList.h"

#include "korlo/osa/Exception.h"

namespace korlo::settings::common
{

bool FitsGroupList(const std::string& nameOrPattern)
{
    return nameOrPattern != "." && nameOrPattern.find('\n') == std::string::npos;
}

void CheckGroupList(const GroupNameCollection& groups)
{
    for (const std::string& entry : groups)
    {
        if (!FitsGroupList(entry))
        {
            throw osa::Exception("Group name '%s' cannot be sent: it is a full stop or holds a line break",
                                 entry.c_str());
        }
    }
}

void WriteGroupList(std::ostream& out, const GroupNameCollection& groups)
{
    for (const std::string& entry : groups)
    {
        out << entry << '\n';
    }
    out << ".\n";
}

}  // namespace korlo::settings::common
