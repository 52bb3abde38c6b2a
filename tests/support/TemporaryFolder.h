#pragma once
// A fresh folder for the files of one test.

#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>

namespace korlo
{

/// A folder that nobody else uses, removed with all that is in it.
///
/// Thread safety: none of its own; the owner guards it.
class TemporaryFolder
{
public:
    TemporaryFolder()
    {
        std::string path = (std::filesystem::temp_directory_path() / "korlo-test-XXXXXX").string();
        if (::mkdtemp(path.data()) == nullptr)
        {
            throw std::runtime_error("Failed to make a folder like '" + path + "'");
        }
        _path = path;
    }

    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;

    ~TemporaryFolder()
    {
        std::error_code ignored;
        std::filesystem::remove_all(_path, ignored);
    }

    const std::string& GetPath() const { return _path; }

    /// The path of a file of that name in the folder, whether it exists or not.
    std::string PathOf(const std::string& name) const { return _path + '/' + name; }

private:
    std::string _path;
};

}  // namespace korlo
