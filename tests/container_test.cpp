// What surrounds the audio: every file of tests/fixtures/tags (tags of each kind, false
// headers inside them, sizes that cannot be trusted, RIFF wrappers) converts to exactly the
// bytes of the bare clip it holds, or is refused as its table row says, through the memory
// and file calls and the command, which names what it skipped with -v and nothing without.
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "kavo/kavo.h"
#include "process.h"

namespace {

using kavotest::read_file;
using kavotest::run_kavo;
using kavotest::TempDir;

const std::string kTags = std::string(KAVO_FIXTURES_DIR) + "/tags/";

struct Row {
    std::string file, bare, skipped, refusal;  // "-" where the table has nothing
};

void PrintTo(const Row& row, std::ostream* out) { *out << row.file; }

std::vector<Row> rows() {
    std::vector<Row> table;
    std::ifstream in(kTags + "expected.tsv");
    for (std::string line; std::getline(in, line);) {
        if (line.empty() || line[0] == '#') continue;
        std::istringstream fields(line);
        Row row;
        std::getline(fields, row.file, '\t');
        std::getline(fields, row.bare, '\t');
        std::getline(fields, row.skipped, '\t');
        std::getline(fields, row.refusal, '\t');
        table.push_back(row);
    }
    return table;
}

int append(void* user, const void* bytes, size_t size) {
    static_cast<std::string*>(user)->append(static_cast<const char*>(bytes), size);
    return 0;
}

int convert(const std::string& input, std::string& out, std::string& message) {
    char text[256] = "";
    const int status = kavo_convert_memory(input.data(), input.size(), 1.0f, append, nullptr,
                                           &out, text, sizeof text);
    message = text;
    return status;
}

class Surroundings : public testing::TestWithParam<Row> {};

TEST_P(Surroundings, ConvertLikeTheBareAudioAndAreNamed) {
    const Row& row = GetParam();
    const std::string path = kTags + row.file;
    std::string engine, message;
    const int status = convert(read_file(path), engine, message);
    TempDir dir;
    const auto command = run_kavo({"convert", "-v", path, dir.file("out.adpcm")});
    const std::string said = row.skipped == "-" ? "" : ": skipped " + row.skipped + "\n";
    if (said.empty()) {
        EXPECT_EQ(command.err.find(": skipped "), std::string::npos) << command.err;
    } else {
        EXPECT_NE(command.err.find(said), std::string::npos) << command.err;
    }
    if (row.refusal != "-") {
        EXPECT_EQ(status, KAVO_ERROR_FORMAT);
        EXPECT_NE(message.find(row.refusal), std::string::npos) << message;
        EXPECT_NE(command.err.find(row.refusal), std::string::npos) << command.err;
        EXPECT_EQ(command.exit_code, 1);
        return;
    }
    std::string bare;
    ASSERT_EQ(convert(read_file(kTags + row.bare), bare, message), KAVO_OK) << message;
    ASSERT_EQ(status, KAVO_OK) << message;
    EXPECT_TRUE(engine == bare);
    ASSERT_EQ(command.exit_code, 0) << command.err;
    EXPECT_TRUE(read_file(dir.file("out.adpcm")) == bare);
    char text[256];
    ASSERT_EQ(kavo_convert_file(path.c_str(), dir.file("file.adpcm").c_str(), 1.0f, nullptr,
                                nullptr, text, sizeof text),
              KAVO_OK)
        << text;
    EXPECT_TRUE(read_file(dir.file("file.adpcm")) == bare);
    // Without -v only the result line.
    const auto plain = run_kavo({"convert", path, dir.file("plain.adpcm")});
    EXPECT_EQ(plain.err.find(": skipped "), std::string::npos) << plain.err;
}

INSTANTIATE_TEST_SUITE_P(Tags, Surroundings, testing::ValuesIn(rows()),
                         [](const testing::TestParamInfo<Row>& row) {
                             std::string name = row.param.file;
                             for (char& c : name) {
                                 if (!std::isalnum(static_cast<unsigned char>(c))) c = '_';
                             }
                             return name;
                         });

}  // namespace
