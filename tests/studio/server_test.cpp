// The studio's handlers over real HTTP on 127.0.0.1: requests it must refuse, and that refused
// requests change nothing on disk.
#include "studio/server.h"

#include <gtest/gtest.h>
#include <httplib.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <map>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>
#include <thread>

#include "veltrano.h"

namespace {

namespace fs = std::filesystem;
using json = nlohmann::json;

constexpr unsigned kW = 64;
constexpr unsigned kH = 48;

const char kStartChain[] =
    "[Smooth_Med]\nradius=1;\nend\n"
    "[CLAHE]\npeak=200;\nbins=256;\nrows=2;\ncols=2;\nend\n"
    "[USM]\nr=2;\nlam=0.04;\nnorm=0;\nend\n"
    "How this chain was tuned.\n";

std::string ReadFile(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream all;
    all << in.rdbuf();
    return all.str();
}

class StudioServerTest : public testing::Test {
protected:
    void SetUp() override {
        root_ = fs::temp_directory_path() /
                ("studio-test-" +
                 std::string(testing::UnitTest::GetInstance()->current_test_info()->name()));
        fs::remove_all(root_);
        fs::create_directories(root_ / "chains" / "sub");
        std::ofstream(root_ / "chains" / "start.chain", std::ios::binary) << kStartChain;
        std::ofstream(root_ / "secret.chain", std::ios::binary) << "[BC]\nb=1;\nc=1;\nend\n";
        std::ofstream(root_ / "chains" / "sub" / "inner.chain") << "[Inverse]\nend\n";

        studio::StudioOptions options;
        options.image.width = kW;
        options.image.height = kH;
        for (unsigned i = 0; i < kW * kH; ++i) {
            const unsigned x = i % kW, y = i / kW;
            options.image.pixels.push_back(
                static_cast<uint16_t>(2000 + 700 * x + 300 * y + (x * 7919 + y * 104729) % 2000));
        }
        source_ = options.image.pixels;
        options.imageLabel = "test picture";
        options.chainPath = (root_ / "chains" / "start.chain").string();
        options.openBrowser = false;
        server_ = std::make_unique<studio::StudioServer>(options);
        std::string error;
        ASSERT_TRUE(server_->Bind(0, error)) << error;
        thread_ = std::thread([this] { server_->Serve(); });
        client_ = std::make_unique<httplib::Client>("127.0.0.1", server_->Port());
        client_->set_read_timeout(60, 0);
        // The server answers once its thread listens.
        for (int i = 0; i < 200 && !client_->Get("/api/state"); ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
    }

    void TearDown() override {
        if (server_) server_->Stop();
        if (thread_.joinable()) thread_.join();
        server_.reset();
        fs::remove_all(root_);
    }

    httplib::Result Post(const std::string& path, const std::string& body,
                         const httplib::Headers& headers = {}) {
        return client_->Post(path.c_str(), headers, body, "application/json");
    }

    // Every file below the test's folder with its content, to show that nothing changed.
    std::map<std::string, std::string> Disk() const {
        std::map<std::string, std::string> files;
        for (const auto& entry : fs::recursive_directory_iterator(root_)) {
            if (entry.is_regular_file()) files[entry.path().string()] = ReadFile(entry.path());
        }
        return files;
    }

    json Steps() const {
        return json::array({{{"name", "Smooth_Med"}, {"values", {1}}},
                            {{"name", "CLAHE"}, {"values", {200, 256, 2, 2}}},
                            {{"name", "USM"}, {"values", {2, 0.04, 0}}}});
    }

    fs::path root_;
    std::vector<uint16_t> source_;
    std::unique_ptr<studio::StudioServer> server_;
    std::thread thread_;
    std::unique_ptr<httplib::Client> client_;
};

TEST_F(StudioServerTest, AnswersOnlyRequestsForThePrintedAddress) {
    const auto before = Disk();
    const std::string port = std::to_string(server_->Port());
    const std::string save = json{{"name", "start.chain"}, {"steps", json::array()}}.dump();
    for (const std::string& host :
         std::vector<std::string>{"evil.example", "evil.example:" + port, "localhost:" + port,
                                  "127.0.0.1", "127.0.0.1:1" + port, "[::1]:" + port}) {
        SCOPED_TRACE(host);
        const httplib::Headers headers{{"Host", host}};
        const auto state = client_->Get("/api/state", headers);
        ASSERT_TRUE(state);
        EXPECT_EQ(state->status, 403);
        EXPECT_EQ(client_->Get("/", headers)->status, 403);
        EXPECT_EQ(Post("/api/chain/save", save, headers)->status, 403);
    }
    // A page elsewhere that posts to the studio names itself in Origin.
    EXPECT_EQ(Post("/api/chain/save", save, {{"Origin", "http://evil.example"}})->status, 403);
    EXPECT_EQ(Disk(), before);
    // Our own page, and a client that names no origin, are served.
    EXPECT_EQ(client_->Get("/api/state")->status, 200);
    const auto page = client_->Get("/", httplib::Headers{{"Origin", "http://127.0.0.1:" + port}});
    ASSERT_TRUE(page);
    EXPECT_EQ(page->status, 200);
    EXPECT_NE(page->body.find("<script src=\"/studio.js\">"), std::string::npos);
    EXPECT_EQ(client_->Get("/studio.js")->status, 200);
}

TEST_F(StudioServerTest, ReadsAndWritesOnlyChainFilesInTheChainsFolder) {
    const auto before = Disk();
    const json steps = Steps();
    for (const std::string& name : std::vector<std::string>{
             "../secret.chain", (root_ / "secret.chain").string(), "sub/inner.chain",
             "..\\secret.chain", ".hidden.chain", "notes.txt", "start.chain/", "", ".chain",
             std::string("a\nb.chain"), std::string(200, 'x') + ".chain"}) {
        SCOPED_TRACE(name);
        const auto load = Post("/api/chain/load", json{{"name", name}}.dump());
        ASSERT_TRUE(load);
        EXPECT_EQ(load->status, 403) << load->body;
        const auto save = Post("/api/chain/save", json{{"name", name}, {"steps", steps}}.dump());
        EXPECT_EQ(save->status, 403) << save->body;
    }
    EXPECT_EQ(Disk(), before);
    const auto state = json::parse(client_->Get("/api/state")->body);
    EXPECT_EQ(state["files"], json::array({"start.chain"}));
    // The image endpoint serves the picture and the chain's outputs, never a file.
    EXPECT_EQ(client_->Get("/api/image?step=../../secret.chain")->status, 400);
    EXPECT_EQ(client_->Get("/secret.chain")->status, 404);
    EXPECT_EQ(client_->Get("/../secret.chain")->status, 404);
}

TEST_F(StudioServerTest, OversizedBodiesAreRefusedBeforeTheyAreRead) {
    const auto before = Disk();
    const std::string note(studio::kMaxRequestBytes, 'n');
    const std::string body = json{{"name", "big.chain"}, {"steps", Steps()}, {"note", note}}.dump();
    const auto save = Post("/api/chain/save", body);
    ASSERT_TRUE(save);
    EXPECT_EQ(save->status, 413);
    EXPECT_EQ(Post("/api/process", std::string(studio::kMaxRequestBytes + 1, ' '))->status, 413);
    EXPECT_EQ(Disk(), before);
    // A body just inside the bound is read (and refused for what it says, not its size).
    EXPECT_EQ(Post("/api/process", std::string(studio::kMaxRequestBytes - 2, ' ') + "{}")->status,
              400);
    EXPECT_EQ(client_->Get("/api/state")->status, 200);
}

TEST_F(StudioServerTest, MalformedRequestsAreRefusedWithAReasonAndChangeNothing) {
    const auto before = Disk();
    auto step = [](const json& name, const json& values) {
        return json{{"name", "start.chain"},
                    {"steps", json::array({{{"name", name}, {"values", values}}})}}
            .dump();
    };
    const std::string bodies[] = {
        "",
        "{",
        "{\"name\": \"start.chain\", \"steps\": [}",
        "[]",
        "null",
        "\"start.chain\"",
        json{{"steps", Steps()}}.dump(),                          // no name
        json{{"name", 5}, {"steps", Steps()}}.dump(),             // name not text
        json{{"name", "start.chain"}, {"steps", 5}}.dump(),       // steps not a list
        json{{"name", "start.chain"}, {"steps", {1, 2}}}.dump(),  // steps not objects
        step("CLAHE", {"200", 256, 2, 2}),                        // a value as text
        step("Clahe", {200, 256, 2, 2}),                          // not a step name
        step("CLAHE", {200, 256, 2}),                             // a value short
        step("CLAHE", {200, 256, 2.5, 2}),                        // not whole
        step("CLAHE", {200, 256, 49, 2}),                         // more tile rows than rows
        step("Smooth_Med", {-1}),
        json{{"name", "start.chain"}, {"steps", Steps()}, {"note", "x\nend\n"}}.dump(),
        json{{"name", "start.chain"}, {"steps", Steps()}, {"note", 7}}.dump(),
    };
    for (const std::string& body : bodies) {
        SCOPED_TRACE(body);
        const auto save = Post("/api/chain/save", body);
        ASSERT_TRUE(save);
        EXPECT_EQ(save->status, 400);
        const auto reason = json::parse(save->body, nullptr, false);
        ASSERT_TRUE(reason.is_object()) << save->body;
        EXPECT_FALSE(reason.value("error", "").empty());
        const auto process = Post("/api/process", body);
        EXPECT_TRUE(process->status == 400 || process->status == 200) << process->status;
    }
    EXPECT_EQ(Disk(), before);
    EXPECT_EQ(client_->Get("/api/image?step=x")->status, 400);
    EXPECT_EQ(client_->Get("/api/image?step=7&run=0")->status, 409);
    EXPECT_EQ(client_->Get("/api/nothing")->status, 404);
    EXPECT_EQ(client_->Get("/api/state")->status, 200);
}

// What the page shows is what the whole chain file gives in one library call, also after a
// change that lets the server reuse the outputs of the steps before it.
TEST_F(StudioServerTest, TheShownResultIsWhatTheSavedFileGivesInOneCall) {
    json steps = Steps();
    for (int round = 0; round < 3; ++round) {
        SCOPED_TRACE(round);
        if (round == 1) steps[1]["values"][0] = 60;  // the clip limit: steps 2 and 3 again
        if (round == 2) steps.push_back({{"name", "BC"}, {"values", {-500, 1.25}}});
        const auto processed = Post("/api/process", json{{"steps", steps}}.dump());
        ASSERT_TRUE(processed);
        ASSERT_EQ(processed->status, 200) << processed->body;
        const json result = json::parse(processed->body);
        ASSERT_EQ(result["times"].size(), steps.size());
        if (round == 1) {
            EXPECT_TRUE(result["times"][0]["reused"].get<bool>());
            EXPECT_FALSE(result["times"][1]["reused"].get<bool>());
            EXPECT_FALSE(result["times"][2]["reused"].get<bool>());
        }
        if (round == 2) {
            EXPECT_TRUE(result["times"][2]["reused"].get<bool>());
            EXPECT_FALSE(result["times"][3]["reused"].get<bool>());
        }
        const std::string last = std::to_string(steps.size() - 1);
        const auto image = client_->Get(
            ("/api/image?step=" + last + "&run=" + std::to_string(result["run"].get<uint64_t>()))
                .c_str());
        ASSERT_TRUE(image);
        ASSERT_EQ(image->status, 200);
        ASSERT_EQ(image->body.size(), kW * kH * 2);
        std::vector<uint16_t> shown(kW * kH);
        std::memcpy(shown.data(), image->body.data(), image->body.size());

        const auto saved =
            Post("/api/chain/save", json{{"name", "tuned.chain"}, {"steps", steps}}.dump());
        ASSERT_EQ(saved->status, 200) << saved->body;
        const fs::path file = root_ / "chains" / "tuned.chain";
        EXPECT_EQ(ReadFile(file), result["text"].get<std::string>());
        std::vector<uint16_t> library(kW * kH, 0);
        std::string text;
        ASSERT_EQ(Img_Post_Process_Chain(source_.data(), library.data(), kW, kH,
                                         file.string().c_str(), text),
                  0);
        EXPECT_EQ(shown, library);
        EXPECT_NE(shown, source_);
    }
    // The source is served as it came.
    const auto source = client_->Get("/api/image?step=source");
    ASSERT_EQ(source->body.size(), kW * kH * 2);
    EXPECT_EQ(std::memcmp(source->body.data(), source_.data(), source->body.size()), 0);
}

TEST_F(StudioServerTest, LoadingReportsTheFileAndSavingKeepsItsNoteWithoutLeavingTemporaries) {
    const auto loaded = Post("/api/chain/load", json{{"name", "start.chain"}}.dump());
    ASSERT_EQ(loaded->status, 200) << loaded->body;
    const json report = json::parse(loaded->body)["report"];
    EXPECT_EQ(report["note"], "How this chain was tuned.\n");
    ASSERT_EQ(report["steps"].size(), 3u);
    EXPECT_EQ(report["steps"][2]["values"][1], 0.04);

    const auto saved = Post(
        "/api/chain/save",
        json{{"name", "start.chain"}, {"steps", report["steps"]}, {"note", report["note"]}}.dump());
    ASSERT_EQ(saved->status, 200) << saved->body;
    // The labels are the form's, the values and the note the file's.
    EXPECT_EQ(ReadFile(root_ / "chains" / "start.chain"),
              "[Smooth_Med]\nradius=1;\nend\n"
              "[CLAHE]\nclip limit=200;\nhistogram bins=256;\ntile rows=2;\ntile columns=2;\nend\n"
              "[USM]\nradius=2;\namount=0.04;\nnormalise=0;\nend\n"
              "How this chain was tuned.\n");
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(root_ / "chains")) {
        names.push_back(entry.path().filename().string());
    }
    std::sort(names.begin(), names.end());
    EXPECT_EQ(names, (std::vector<std::string>{"start.chain", "sub"}));

    // A missing file in the folder is a plain 404, not a crash.
    EXPECT_EQ(Post("/api/chain/load", json{{"name", "missing.chain"}}.dump())->status, 404);
}

}  // namespace
