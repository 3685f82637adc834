#include "studio/server.h"

#include <httplib.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <random>
#include <sstream>

#include "platform/browser.h"
#include "platform/interrupt.h"
#include "platform/listen_socket.h"
#include "studio/web_assets.h"

namespace studio {
namespace fs = std::filesystem;
using json = nlohmann::json;

namespace {

void Reply(httplib::Response& response, int status, const json& body) {
    response.status = status;
    response.set_header("Cache-Control", "no-store");
    response.set_content(body.dump(), "application/json");
}

void Refuse(httplib::Response& response, int status, const std::string& reason) {
    Reply(response, status, json{{"error", reason}});
}

// A folder of our own for the one-block chain files, removed when the server goes.
std::string MakeScratchDir() {
    std::error_code ec;
    const fs::path base = fs::temp_directory_path(ec);
    std::random_device seed;
    std::mt19937_64 random(
        seed() ^
        static_cast<uint64_t>(std::chrono::steady_clock::now().time_since_epoch().count()));
    for (int attempt = 0; attempt < 16; ++attempt) {
        char name[40];
        std::snprintf(name, sizeof name, "veltrano-studio-%016llx",
                      static_cast<unsigned long long>(random()));
        const fs::path dir = (ec ? fs::path(".") : base) / name;
        if (fs::create_directory(dir, ec) && !ec) {
            return dir.string();
        }
    }
    return std::string();
}

// The request's JSON object, or false after refusing it with 400.
bool ParseBody(const httplib::Request& request, httplib::Response& response, json& body) {
    body = json::parse(request.body, nullptr, false);
    if (body.is_discarded()) {
        Refuse(response, 400, "the request body is not valid JSON");
        return false;
    }
    if (!body.is_object()) {
        Refuse(response, 400, "the request body must be a JSON object");
        return false;
    }
    return true;
}

bool ParseSteps(const json& body, std::vector<StepValues>& steps, std::string& error) {
    const auto list = body.find("steps");
    if (list == body.end() || !list->is_array()) {
        error = "\"steps\" must be a list";
        return false;
    }
    if (list->size() > kMaxSteps) {
        error = "a chain holds at most " + std::to_string(kMaxSteps) + " steps";
        return false;
    }
    for (const json& item : *list) {
        const auto name = item.is_object() ? item.find("name") : item.end();
        const auto values = item.is_object() ? item.find("values") : item.end();
        if (!item.is_object() || name == item.end() || !name->is_string() || values == item.end() ||
            !values->is_array()) {
            error = "each step needs a \"name\" text and a \"values\" list";
            return false;
        }
        StepValues step;
        step.name = name->get<std::string>();
        for (const json& value : *values) {
            if (!value.is_number()) {
                error = "step values must be numbers";
                return false;
            }
            step.values.push_back(value.get<double>());
        }
        steps.push_back(std::move(step));
    }
    return true;
}

json StepTableJson(unsigned width, unsigned height) {
    json table = json::array();
    for (const StepKind& kind : StepTable()) {
        json params = json::array();
        for (const ParamInfo& param : kind.params) {
            params.push_back({{"label", param.label},
                              {"type", param.type == ParamType::Int ? "int" : "float"},
                              {"min", param.min},
                              {"max", MaxFor(param, width, height)},
                              {"initial", param.initial},
                              {"help", param.help}});
        }
        table.push_back({{"name", kind.name}, {"help", kind.help}, {"params", params}});
    }
    return table;
}

json StepsJson(const std::vector<StepValues>& steps) {
    json list = json::array();
    for (const StepValues& step : steps) {
        list.push_back({{"name", step.name}, {"values", step.values}});
    }
    return list;
}

json ReportJson(const ChainReport& report) {
    json blocks = json::array();
    for (const BlockReport& block : report.blocks) {
        blocks.push_back({{"name", block.name},
                          {"lines", block.lines},
                          {"expected", block.expected},
                          {"outcome", OutcomeName(block.outcome)},
                          {"detail", block.detail}});
    }
    return {{"hasBlocks", report.hasBlocks},
            {"fails", report.fails},
            {"blocks", blocks},
            {"notes", report.notes},
            {"steps", StepsJson(report.steps)},
            {"summary", report.summary},
            {"note", report.note}};
}

bool ReadSmallFile(const fs::path& path, std::string& text, std::string& error) {
    std::error_code ec;
    if (!fs::is_regular_file(path, ec)) {
        error = "is not a regular file";
        return false;
    }
    const auto size = fs::file_size(path, ec);
    if (ec || size > kMaxChainBytes) {
        error = "is larger than " + std::to_string(kMaxChainBytes / 1024) + " KiB";
        return false;
    }
    std::ifstream in(path, std::ios::binary);
    std::ostringstream all;
    all << in.rdbuf();
    if (!in.good() && !in.eof()) {
        error = "cannot be read";
        return false;
    }
    text = all.str();
    return true;
}

// Writes the whole file beside the target under a hidden name, then renames it over the target:
// a reader sees the old file or the new one, never a part.
bool WriteAtomically(const fs::path& target, const std::string& text, std::string& error) {
    std::error_code ec;
    const fs::file_status status = fs::symlink_status(target, ec);
    if (fs::exists(status) && !fs::is_regular_file(status)) {
        error = "exists and is not a regular file";
        return false;
    }
    const fs::path temporary =
        target.parent_path() / ("." + target.filename().string() + ".studio-new");
    {
        std::ofstream out(temporary, std::ios::binary | std::ios::trunc);
        out << text;
        out.close();
        if (!out) {
            fs::remove(temporary, ec);
            error = "cannot be written";
            return false;
        }
    }
    fs::rename(temporary, target, ec);
    if (ec) {
        fs::remove(temporary, ec);
        error = "cannot be replaced";
        return false;
    }
    return true;
}

}  // namespace

StudioServer::StudioServer(StudioOptions options)
    : options_(std::move(options)),
      server_(std::make_unique<httplib::Server>()),
      scratchDir_(MakeScratchDir()),
      processor_(scratchDir_) {
    const fs::path chain = fs::absolute(options_.chainPath);
    chainDir_ = chain.parent_path().string();
    chainName_ = chain.filename().string();
    if (!options_.image.pixels.empty()) {
        image_ = std::make_shared<const StudioImage>(options_.image);
        imageVersion_ = 1;
        options_.image = StudioImage();
    }
    Route();
}

StudioServer::~StudioServer() {
    Stop();
    if (acquisition_.joinable()) {
        acquisition_.join();
    }
    if (!scratchDir_.empty()) {
        std::error_code ec;
        fs::remove_all(scratchDir_, ec);
    }
}

bool StudioServer::Bind(int port, std::string& error) {
    if (scratchDir_.empty()) {
        error = "no scratch folder could be made in the temporary folder";
        return false;
    }
    if (port != 0) {
        if (!server_->bind_to_port("127.0.0.1", port)) {
            error = "port " + std::to_string(port) + " on 127.0.0.1 is in use or not allowed";
            return false;
        }
        port_ = port;
    } else if (server_->bind_to_port("127.0.0.1", kDefaultPort)) {
        port_ = kDefaultPort;
    } else {
        port_ = server_->bind_to_any_port("127.0.0.1");
        if (port_ <= 0) {
            error = "no port on 127.0.0.1 could be opened";
            return false;
        }
    }
    host_ = "127.0.0.1:" + std::to_string(port_);
    return true;
}

std::string StudioServer::Address() const { return "http://" + host_ + "/"; }

void StudioServer::Serve() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (!image_ && options_.acquire) {
            StartAcquisition();
        }
    }
    server_->listen_after_bind();
}

void StudioServer::Stop() {
    if (server_) {
        server_->stop();
    }
}

bool StudioServer::HostAllowed(const httplib::Request& request) const {
    if (request.get_header_value("Host") != host_) {
        return false;
    }
    // A browser names the page that sent a request; only our own page may send one.
    return !request.has_header("Origin") || request.get_header_value("Origin") == "http://" + host_;
}

void StudioServer::Route() {
    httplib::Server& s = *server_;
    // httplib's own default also sets SO_REUSEPORT, which would let a second server share the
    // port and take part of the page's requests.
    s.set_socket_options([](socket_t socket) {
        veltrano::platform::PrepareListeningSocket(static_cast<uint64_t>(socket));
    });
    s.set_payload_max_length(kMaxRequestBytes);
    s.set_read_timeout(5, 0);
    s.set_write_timeout(5, 0);
    s.set_pre_routing_handler([this](const httplib::Request& request, httplib::Response& response) {
        if (!HostAllowed(request)) {
            Refuse(response, 403, "this server answers only requests to " + Address());
            return httplib::Server::HandlerResponse::Handled;
        }
        return httplib::Server::HandlerResponse::Unhandled;
    });
    s.set_exception_handler(
        [](const httplib::Request&, httplib::Response& response, std::exception_ptr) {
            Refuse(response, 500, "the request could not be served");
        });
    for (const WebAsset& asset : WebAssets()) {
        s.Get(asset.path, [&asset](const httplib::Request&, httplib::Response& response) {
            response.set_header("Cache-Control", "no-store");
            response.set_content(asset.body, asset.type);
        });
    }
    s.Get("/favicon.ico", [](const httplib::Request&, httplib::Response& r) { r.status = 204; });
    s.Get("/api/state", [this](const httplib::Request&, httplib::Response& r) { State(r); });
    s.Get("/api/image", [this](const httplib::Request& q, httplib::Response& r) { Image(q, r); });
    s.Post("/api/process",
           [this](const httplib::Request& q, httplib::Response& r) { Process(q, r); });
    s.Post("/api/chain/load",
           [this](const httplib::Request& q, httplib::Response& r) { LoadChain(q, r); });
    s.Post("/api/chain/save",
           [this](const httplib::Request& q, httplib::Response& r) { SaveChain(q, r); });
    s.Post("/api/acquire", [this](const httplib::Request&, httplib::Response& r) { Acquire(r); });
}

void StudioServer::State(httplib::Response& response) {
    std::lock_guard<std::mutex> lock(mutex_);
    json state;
    unsigned width = 65535, height = 65535;
    if (image_) {
        width = image_->width;
        height = image_->height;
        state["image"] = {{"width", width},
                          {"height", height},
                          {"version", imageVersion_},
                          {"label", options_.imageLabel}};
    } else {
        state["image"] = nullptr;
    }
    state["canAcquire"] = static_cast<bool>(options_.acquire);
    state["acquiring"] = acquiring_;
    state["progress"] = progress_.load();
    state["acquireError"] = acquireError_;
    state["chainFolder"] = chainDir_;
    state["chainName"] = chainName_;
    state["files"] = ChainFiles();
    state["steps"] = StepTableJson(width, height);
    Reply(response, 200, state);
}

void StudioServer::Image(const httplib::Request& request, httplib::Response& response) {
    const std::string which = request.get_param_value("step");
    std::shared_ptr<const StudioImage> image;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        image = image_;
    }
    if (!image) {
        Refuse(response, 409, "there is no picture yet");
        return;
    }
    std::string body;
    auto send = [&](const std::vector<uint16_t>& pixels) {
        body.assign(reinterpret_cast<const char*>(pixels.data()), pixels.size() * sizeof(uint16_t));
        response.set_header("Cache-Control", "no-store");
        response.set_header("X-Width", std::to_string(image->width));
        response.set_header("X-Height", std::to_string(image->height));
        response.set_content(std::move(body), "application/octet-stream");
    };
    if (which.empty() || which == "source") {
        send(image->pixels);
        return;
    }
    char* end = nullptr;
    const unsigned long index = std::strtoul(which.c_str(), &end, 10);
    const unsigned long long run =
        std::strtoull(request.get_param_value("run").c_str(), nullptr, 10);
    if (end == which.c_str() || *end != '\0') {
        Refuse(response, 400, "\"step\" must be \"source\" or a step number");
        return;
    }
    std::lock_guard<std::mutex> lock(processMutex_);
    if (run != lastRun_) {
        Refuse(response, 409, "that result has been replaced by a newer one");
        return;
    }
    const std::vector<uint16_t>* pixels = processor_.Output(index);
    if (pixels == nullptr) {
        Refuse(response, 404, "the chain has no step " + which);
        return;
    }
    send(*pixels);
}

void StudioServer::Process(const httplib::Request& request, httplib::Response& response) {
    json body;
    if (!ParseBody(request, response, body)) {
        return;
    }
    std::vector<StepValues> steps;
    std::string error;
    if (!ParseSteps(body, steps, error)) {
        Refuse(response, 400, error);
        return;
    }
    std::shared_ptr<const StudioImage> image;
    uint64_t version = 0;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        image = image_;
        version = imageVersion_;
    }
    if (!image) {
        Refuse(response, 409, "there is no picture yet");
        return;
    }
    if (!ValidateSteps(steps, image->width, image->height, error)) {
        Refuse(response, 400, error);
        return;
    }
    const uint64_t request_id = ++latestRequest_;
    std::lock_guard<std::mutex> lock(processMutex_);
    std::vector<StepTime> times;
    bool cancelled = false;
    lastRun_ = 0;  // the processor's outputs are about to change
    const auto start = std::chrono::steady_clock::now();
    if (!processor_.Run(*image, version, steps, latestRequest_, request_id, times, cancelled,
                        error)) {
        Refuse(response, 409, cancelled ? "superseded by a newer request" : error);
        return;
    }
    const double total =
        std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
    lastRun_ = request_id;
    json timeList = json::array();
    for (const StepTime& t : times) {
        timeList.push_back({{"name", t.name}, {"ms", t.milliseconds}, {"reused", t.reused}});
    }
    Reply(response, 200,
          {{"run", request_id},
           {"imageVersion", version},
           {"text", ChainText(steps)},
           {"times", timeList},
           {"totalMs", total}});
}

bool StudioServer::ChainNameAllowed(const std::string& name) const {
    if (name == chainName_ && !name.empty()) {
        return true;
    }
    if (name.empty() || name.size() > 128 || name[0] == '.') {
        return false;
    }
    for (const char c : name) {
        if (c == '/' || c == '\\' || c == ':' || static_cast<unsigned char>(c) < 0x20 ||
            c == 0x7f) {
            return false;
        }
    }
    const std::string suffix = ".chain";
    return name.size() > suffix.size() &&
           name.compare(name.size() - suffix.size(), suffix.size(), suffix) == 0;
}

std::vector<std::string> StudioServer::ChainFiles() const {
    std::vector<std::string> names;
    std::error_code ec;
    for (fs::directory_iterator it(chainDir_, ec), end; !ec && it != end; it.increment(ec)) {
        const std::string name = it->path().filename().string();
        std::error_code kind;
        if (ChainNameAllowed(name) && it->is_regular_file(kind) && names.size() < 500) {
            names.push_back(name);
        }
    }
    std::sort(names.begin(), names.end());
    return names;
}

void StudioServer::LoadChain(const httplib::Request& request, httplib::Response& response) {
    json body;
    if (!ParseBody(request, response, body)) {
        return;
    }
    const auto name = body.find("name");
    if (name == body.end() || !name->is_string()) {
        Refuse(response, 400, "\"name\" must be a file name");
        return;
    }
    const std::string file = name->get<std::string>();
    if (!ChainNameAllowed(file)) {
        Refuse(response, 403, "only chain files in " + chainDir_ + " can be read");
        return;
    }
    std::string text, error;
    unsigned width = 65535, height = 65535;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (image_) {
            width = image_->width;
            height = image_->height;
        }
    }
    if (!ReadSmallFile(fs::path(chainDir_) / file, text, error)) {
        Refuse(response, 404, file + " " + error);
        return;
    }
    Reply(response, 200,
          {{"name", file},
           {"text", text},
           {"report", ReportJson(AnalyseChain(text, width, height))}});
}

void StudioServer::SaveChain(const httplib::Request& request, httplib::Response& response) {
    json body;
    if (!ParseBody(request, response, body)) {
        return;
    }
    const auto name = body.find("name");
    if (name == body.end() || !name->is_string()) {
        Refuse(response, 400, "\"name\" must be a file name");
        return;
    }
    const std::string file = name->get<std::string>();
    if (!ChainNameAllowed(file)) {
        Refuse(response, 403,
               "chain files can only be saved in " + chainDir_ + " under a name ending in .chain");
        return;
    }
    std::vector<StepValues> steps;
    std::string error;
    if (!ParseSteps(body, steps, error)) {
        Refuse(response, 400, error);
        return;
    }
    unsigned width = 65535, height = 65535;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (image_) {
            width = image_->width;
            height = image_->height;
        }
    }
    if (!ValidateSteps(steps, width, height, error)) {
        Refuse(response, 400, error);
        return;
    }
    std::string note;
    if (const auto given = body.find("note"); given != body.end()) {
        if (!given->is_string()) {
            Refuse(response, 400, "\"note\" must be text");
            return;
        }
        note = given->get<std::string>();
        if (!NoteAllowed(note, error)) {
            Refuse(response, 400, error);
            return;
        }
    }
    const std::string text = ChainText(steps, note);
    if (!WriteAtomically(fs::path(chainDir_) / file, text, error)) {
        Refuse(response, 500, file + " " + error);
        return;
    }
    Reply(response, 200, {{"name", file}, {"bytes", text.size()}, {"text", text}});
}

bool StudioServer::StartAcquisition() {
    if (acquiring_ || !options_.acquire) {
        return false;
    }
    if (acquisition_.joinable()) {
        acquisition_.join();  // the previous one has finished: acquiring_ is false
    }
    acquiring_ = true;
    acquireError_.clear();
    progress_.store(0);
    acquisition_ = std::thread([this] {
        auto image = std::make_shared<StudioImage>();
        std::string error;
        const bool done = options_.acquire(*image, error, progress_);
        std::lock_guard<std::mutex> lock(mutex_);
        acquiring_ = false;
        if (done && !image->pixels.empty()) {
            image_ = std::move(image);
            ++imageVersion_;
        } else {
            acquireError_ = error.empty() ? "no image came" : error;
        }
    });
    return true;
}

void StudioServer::Acquire(httplib::Response& response) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (!options_.acquire) {
        Refuse(response, 409, "the studio was started on a picture, not on a sensor");
        return;
    }
    if (!StartAcquisition()) {
        Refuse(response, 409, "an exposure is already running");
        return;
    }
    Reply(response, 202, {{"acquiring", true}});
}

namespace {

// Set by Ctrl-C (or a polite kill); a lock-free atomic is safe to set from a signal handler.
std::atomic<bool> g_stopRequested{false};
static_assert(std::atomic<bool>::is_always_lock_free, "the signal handler needs a lock-free flag");
extern "C" void OnStopSignal(int) { g_stopRequested.store(true); }

}  // namespace

int RunStudio(const StudioOptions& options) {
    StudioServer server(options);
    std::string error;
    const int port = options.port;
    if (!server.Bind(port, error)) {
        std::fprintf(stderr, "veltrano studio: %s\n", error.c_str());
        return 1;
    }
    // Ending the server rather than the process lets it remove its scratch folder. The handlers
    // are in place before the address is printed: whoever reads the address may end the studio
    // at once.
    g_stopRequested.store(false);
    const veltrano::platform::InterruptHandler previousInt =
        veltrano::platform::SetInterruptHandler(OnStopSignal);
    const veltrano::platform::InterruptHandler previousTerm =
        veltrano::platform::SetTerminationHandler(OnStopSignal);
    std::printf("veltrano studio: %s  (Ctrl-C ends it)\n", server.Address().c_str());
    std::fflush(stdout);
    if (options.openBrowser && !veltrano::platform::OpenInBrowser(server.Address())) {
        std::printf("open %s in a browser\n", server.Address().c_str());
    }
    std::atomic<bool> served{false};
    std::thread watcher([&] {
        while (!served.load() && !g_stopRequested.load()) {
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        }
        // A stop asked for before the server has started listening does nothing, and the server
        // would then listen for ever: it is asked again until it has ended.
        while (!served.load()) {
            server.Stop();
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
    });
    server.Serve();
    served.store(true);
    watcher.join();
    veltrano::platform::SetInterruptHandler(previousInt);
    veltrano::platform::SetTerminationHandler(previousTerm);
    return 0;
}

}  // namespace studio
