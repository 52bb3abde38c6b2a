// What docs/protocol.md shows is what happens.

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "settings/server/ClientHandler.h"
#include "settings/server/SerializationManager.h"
#include "settings/server/SettingsManager.h"
#include "support/Documents.h"
#include "support/PiecewiseStream.h"
#include "support/RecordingPersister.h"

namespace korlo::settings::server
{
namespace
{

/// The code blocks of the document that are marked with that word.
std::vector<std::string> BlocksOf(const std::string& word)
{
    std::ifstream document(std::string(KORLO_DOCS_FOLDER) + "/protocol.md");
    std::vector<std::string> blocks;
    bool inside = false;
    for (std::string line; std::getline(document, line);)
    {
        if (line == "```" + word)
        {
            inside = true;
            blocks.emplace_back();
        }
        else if (line == "```")
        {
            inside = false;
        }
        else if (inside)
        {
            blocks.back() += line + '\n';
        }
    }
    return blocks;
}

/// The lines that begin with the sign, without it.
std::string LinesOf(const std::string& transcript, char sign)
{
    std::istringstream lines(transcript);
    std::string text;
    for (std::string line; std::getline(lines, line);)
    {
        EXPECT_TRUE(line[0] == '>' || line[0] == '<') << line;
        if (line[0] == sign)
        {
            text += line.size() > 1 ? line.substr(2) + '\n' : "\n";
        }
    }
    return text;
}

TEST(ProtocolDocumentTest, EveryTranscriptIsWhatAServerSays)
{
    const std::vector<std::string> defaults = BlocksOf("ini");
    ASSERT_EQ(defaults.size(), 1u);
    const std::vector<std::string> restricted = BlocksOf("ini restricted");
    ASSERT_EQ(restricted.size(), 1u);
    const std::vector<std::string> transcripts = BlocksOf("transcript");
    ASSERT_EQ(transcripts.size(), 2u);
    for (const std::string& transcript : transcripts)
    {
        for (const std::size_t pieceBytes : {1u, 3u, 4096u})
        {
            RecordingPersister persister;
            persister.defaults = {Ini(defaults[0])};
            RecordingRestrictedLoader restrictedLoader;
            restrictedLoader.documents = {Ini(restricted[0])};
            SettingsManager store(&persister, &restrictedLoader, nullptr, false);
            SerializationManager serialization;
            ServerEnv env{&store, &serialization};
            PiecewiseStream in(LinesOf(transcript, '>'), pieceBytes);
            std::ostringstream out;
            ClientHandler(&env, &in, &out).Run();
            EXPECT_EQ(out.str(), LinesOf(transcript, '<'));
        }
    }
}

}  // namespace
}  // namespace korlo::settings::server
