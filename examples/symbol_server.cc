// symbol_server [--listen ADDRESS] [--port PORT] [--cache BYTES] [--max-request BYTES]
//               [--max-frames COUNT] [--threads COUNT] TREE...
//
// A symbol server over symbol trees: answers the symbolication API that profilers speak, and has a
// page for a person at "/". Prints "listening on ADDRESS:PORT" when it is ready, and ends at SIGINT
// or SIGTERM.
//
//   POST /symbolicate/v5
//   {"jobs": [{"memoryMap": [["a.pdb", "5D3F...1"]], "stacks": [[[0, 4096], [-1, 7]]]}]}
//
// A frame is a module's index in the memory map, -1 if unknown, and an address relative to that
// module. The answer:
//
//   {"results": [{"stacks": [[{"frame": 0, "module": "a.pdb", "module_offset": "0x1000",
//     "function": "f(int)", "function_offset": "0x0", "file": "C:\\src\\f.cc", "line": 12,
//     "inlines": [{"function": "g(int)", "file": "C:\\src\\g.h", "line": 3}]}, ...]],
//     "found_modules": {"a.pdb/5D3F...1": true}}]}
//
// Fields of a frame that are not known are absent. Inlined calls are innermost first. A module of
// which no frame asked has the value null in found_modules.
//
// Malformed requests get the status 400, those above a limit 413, both with {"error": "..."}. By
// default the server listens on the loopback address alone. It has no access control and no TLS:
// put a reverse proxy in front of it before others reach it.
//
// Needs libcpp-httplib-dev and nlohmann-json3-dev of Debian:
//   c++ -std=c++17 symbol_server.cc $(pkg-config --cflags --libs libsymforge cpp-httplib) -pthread

#include <httplib.h>
#include <signal.h>
#include <symforge/symforge.h>

#include <charconv>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "symbol_server_page.h"

namespace {

using Json = nlohmann::ordered_json;

struct Options {
  std::string address = "127.0.0.1";
  uint64_t port = 8080;  // 0: a free one
  uint64_t cache_bytes = uint64_t{1} << 30;
  uint64_t max_request = uint64_t{4} << 20;
  uint64_t max_frames = 100'000;
  uint64_t threads = 8;
  std::vector<const char*> trees;
};

constexpr uint64_t kMissingMilliseconds = 60'000;
constexpr size_t kMaxModules = 10'000;  // of one request
// Inlined calls in an answer, for each frame that a request may have.
constexpr size_t kInlinedCallsPerFrame = 10;
constexpr int kMaxDepth = 8;  // of nested values in a request

// A request that gets an error with this status.
struct RequestError : std::runtime_error {
  RequestError(int wanted_status, const std::string& text)
      : std::runtime_error(text), status(wanted_status) {}
  int status;
};

std::string hex(uint64_t number) {
  char text[2 + 16 + 1];
  std::snprintf(text, sizeof text, "0x%" PRIx64, number);
  return text;
}

struct CloseModule {
  void operator()(symforge_module* module) const { symforge_module_close(module); }
};

// An entry of a memory map, with all addresses that the job has in it.
struct ModuleLookups {
  std::string debug_file;
  std::string identifier;
  std::unique_ptr<symforge_module, CloseModule> module;
  std::vector<uint64_t> addresses;
  std::vector<symforge_answer> answers;  // first_frame is a position in `frames`
  std::vector<symforge_frame> frames;

  void find(symforge_store* store);
  void resolve(size_t max_frames);
};

void ModuleLookups::find(symforge_store* store) {
  symforge_module* found = nullptr;
  symforge_store_find(store, debug_file.c_str(), identifier.c_str(), &found);
  module.reset(found);
}

// The memory for frames grows until all answers are complete.
void ModuleLookups::resolve(size_t max_frames) {
  answers.resize(addresses.size());
  size_t done = 0;
  size_t used = 0;
  while (done < addresses.size()) {
    frames.resize(used + 2 * (addresses.size() - done) + 64);
    answers[done].size = sizeof answers[0];
    frames[used].size = sizeof frames[0];
    size_t answered = 0;
    const symforge_status status =
        symforge_resolve_array(module.get(), &addresses[done], addresses.size() - done,
                               &answers[done], &frames[used], frames.size() - used, &answered);
    if (status != SYMFORGE_OK && status != SYMFORGE_ERROR_TOO_SMALL) {
      throw std::runtime_error(symforge_last_error());
    }
    const size_t first = used;
    for (const size_t end = done + answered; done < end; ++done) {
      answers[done].first_frame += first;
      used += answers[done].frame_count;
    }
    if (status == SYMFORGE_OK) return;
    const size_t needed = answers[done].frame_count;
    if (used + needed > max_frames) throw RequestError(413, "too many inlined calls");
    if (needed > frames.size() - used) frames.resize(used + needed);
  }
}

// A frame of a request: a module of the memory map, or none, and an address.
struct Frame {
  ModuleLookups* module;
  size_t index;  // of the address in the module
  uint64_t address;
};

// One job of a request.
class Job {
 public:
  // Throws RequestError, and takes the number of frames from `frames_left`.
  Job(const Json& request, uint64_t& frames_left);

  Json answer(symforge_store* store, size_t max_frames);

 private:
  void read_modules(const Json& memory_map);
  Frame read_frame(const Json& frame);
  static void describe(const Frame& frame, Json& out);
  Json found_modules() const;

  std::vector<ModuleLookups> modules_;
  std::vector<std::vector<Frame>> stacks_;
};

const Json& member(const Json& object, const char* name) {
  if (!object.is_object()) throw RequestError(400, "a job is not an object");
  const auto found = object.find(name);
  if (found == object.end() || !found->is_array()) {
    throw RequestError(400, std::string("a job needs the array \"") + name + "\"");
  }
  return *found;
}

Job::Job(const Json& request, uint64_t& frames_left) {
  read_modules(member(request, "memoryMap"));
  for (const Json& stack : member(request, "stacks")) {
    if (!stack.is_array()) throw RequestError(400, "a stack is not an array");
    if (stack.size() > frames_left) throw RequestError(413, "too many frames");
    frames_left -= stack.size();
    std::vector<Frame>& frames = stacks_.emplace_back();
    frames.reserve(stack.size());
    for (const Json& frame : stack) frames.push_back(read_frame(frame));
  }
}

void Job::read_modules(const Json& memory_map) {
  if (memory_map.size() > kMaxModules) throw RequestError(413, "too many modules");
  modules_.resize(memory_map.size());
  for (size_t i = 0; i < memory_map.size(); ++i) {
    const Json& entry = memory_map[i];
    if (!entry.is_array() || entry.size() != 2 || !entry[0].is_string() || !entry[1].is_string()) {
      throw RequestError(400, "an entry of the memory map is not [\"file\", \"identifier\"]");
    }
    modules_[i].debug_file = entry[0].get<std::string>();
    modules_[i].identifier = entry[1].get<std::string>();
  }
}

Frame Job::read_frame(const Json& frame) {
  if (!frame.is_array() || frame.size() != 2 || !frame[0].is_number_integer() ||
      !frame[1].is_number_unsigned()) {
    throw RequestError(400, "a frame is not [module index, address]");
  }
  const auto address = frame[1].get<uint64_t>();
  const auto index = frame[0].get<int64_t>();
  if (index == -1) return {nullptr, 0, address};
  if (index < 0 || static_cast<uint64_t>(index) >= modules_.size()) {
    throw RequestError(400, "a frame has a module index outside of the memory map");
  }
  ModuleLookups& module = modules_[static_cast<size_t>(index)];
  module.addresses.push_back(address);
  return {&module, module.addresses.size() - 1, address};
}

void set_position(const symforge_frame& frame, Json& out) {
  if (frame.file != nullptr) out["file"] = frame.file;
  if (frame.line != 0) out["line"] = frame.line;
}

// Adds what is known about a frame.
void Job::describe(const Frame& frame, Json& out) {
  if (frame.module == nullptr || frame.module->module == nullptr) return;
  const symforge_answer& answer = frame.module->answers[frame.index];
  if (answer.found == SYMFORGE_FOUND_NOTHING) return;
  const symforge_frame* innermost = &frame.module->frames[answer.first_frame];
  const uint32_t calls = answer.frame_count - 1;
  out["function"] = answer.function;
  out["function_offset"] = hex(frame.address - answer.function_start);
  set_position(innermost[calls], out);
  for (uint32_t i = 0; i < calls; ++i) {
    Json call = {{"function", innermost[i].function}};
    set_position(innermost[i], call);
    out["inlines"].push_back(std::move(call));
  }
}

// True or false for a module that a frame asked about, else null. A name may occur twice.
Json Job::found_modules() const {
  Json found = Json::object();
  for (const ModuleLookups& module : modules_) {
    Json& entry = found[module.debug_file + "/" + module.identifier];
    if (!module.addresses.empty()) entry = module.module != nullptr;
  }
  return found;
}

Json Job::answer(symforge_store* store, size_t max_frames) {
  for (ModuleLookups& module : modules_) {
    if (module.addresses.empty()) continue;
    module.find(store);
    if (module.module != nullptr) module.resolve(max_frames);
  }
  Json stacks = Json::array();
  for (const std::vector<Frame>& frames : stacks_) {
    Json stack = Json::array();
    for (size_t i = 0; i < frames.size(); ++i) {
      const Frame& frame = frames[i];
      Json out = {{"frame", i},
                  {"module", frame.module == nullptr ? "<unknown>" : frame.module->debug_file},
                  {"module_offset", hex(frame.address)}};
      describe(frame, out);
      stack.push_back(std::move(out));
    }
    stacks.push_back(std::move(stack));
  }
  return {{"stacks", std::move(stacks)}, {"found_modules", found_modules()}};
}

Json parse(const std::string& body) {
  const auto is_shallow = [](int depth, Json::parse_event_t, const Json&) {
    if (depth > kMaxDepth) throw RequestError(400, "the request is nested too deeply");
    return true;
  };
  try {
    return Json::parse(body, is_shallow);
  } catch (const Json::exception& error) {
    throw RequestError(400, error.what());
  }
}

// A request is an object with jobs, or a single job.
std::string symbolicate(const std::string& body, symforge_store* store, const Options& options) {
  const Json request = parse(body);
  if (!request.is_object()) throw RequestError(400, "the request is not an object");
  uint64_t frames_left = options.max_frames;
  std::vector<Job> jobs;
  if (request.contains("jobs")) {
    for (const Json& job : member(request, "jobs")) jobs.emplace_back(job, frames_left);
  } else {
    jobs.emplace_back(request, frames_left);
  }
  Json results = Json::array();
  for (Job& job : jobs) {
    results.push_back(job.answer(store, kInlinedCallsPerFrame * options.max_frames));
  }
  // Names in symbol files may not be UTF-8.
  return Json{{"results", std::move(results)}}.dump(-1, ' ', false, Json::error_handler_t::replace);
}

void set_error(httplib::Response& response, int status, const std::string& text) {
  response.status = status;
  response.set_content(Json{{"error", text}}.dump(-1, ' ', false, Json::error_handler_t::replace),
                       "application/json");
}

// Reads the body up to the limit, however it is encoded.
std::string read_body(const httplib::ContentReader& reader, uint64_t limit) {
  std::string body;
  bool too_large = false;
  const bool complete = reader([&](const char* data, size_t size) {
    too_large = size > limit - body.size();
    if (!too_large) body.append(data, size);
    return !too_large;
  });
  if (too_large) throw RequestError(413, "the request is too large");
  if (!complete) throw RequestError(400, "the request is incomplete");
  return body;
}

void add_routes(httplib::Server& server, symforge_store* store, const Options& options) {
  server.Get("/", [](const httplib::Request&, httplib::Response& response) {
    response.set_header("Content-Security-Policy",
                        "default-src 'none'; script-src 'unsafe-inline'; style-src "
                        "'unsafe-inline'; connect-src 'self'");
    response.set_content(kPage, "text/html; charset=utf-8");
  });
  server.Post("/symbolicate/v5",
              [store, options](const httplib::Request&, httplib::Response& response,
                               const httplib::ContentReader& reader) {
                try {
                  const std::string body = read_body(reader, options.max_request);
                  response.set_content(symbolicate(body, store, options), "application/json");
                } catch (const RequestError& error) {
                  set_error(response, error.status, error.what());
                  // The rest of a body that was not read is not the next request.
                  response.set_header("Connection", "close");
                }
              });
  server.set_error_handler([](const httplib::Request&, httplib::Response& response) {
    if (!response.body.empty()) return;
    const int status = response.status;
    set_error(response, status,
              status == 404 ? "no such path" : "status " + std::to_string(status));
  });
  server.set_exception_handler(
      [](const httplib::Request&, httplib::Response& response, const std::exception_ptr&) {
        set_error(response, 500, "internal error");
      });
}

bool parse_number(const char* text, uint64_t& number) {
  const char* end = text + std::strlen(text);
  return std::from_chars(text, end, number).ptr == end && text != end;
}

std::optional<Options> parse_options(int argc, char** argv) {
  Options options;
  for (int i = 1; i < argc; ++i) {
    const std::string_view word = argv[i];
    if (word.substr(0, 2) != "--") {
      options.trees.push_back(argv[i]);
      continue;
    }
    if (++i == argc) return std::nullopt;
    uint64_t* number = word == "--port"          ? &options.port
                       : word == "--cache"       ? &options.cache_bytes
                       : word == "--max-request" ? &options.max_request
                       : word == "--max-frames"  ? &options.max_frames
                       : word == "--threads"     ? &options.threads
                                                 : nullptr;
    if (word == "--listen") {
      options.address = argv[i];
    } else if (number == nullptr || !parse_number(argv[i], *number)) {
      return std::nullopt;
    }
  }
  const bool valid = !options.trees.empty() && options.port < 65536 && options.threads > 0 &&
                     options.threads <= 1024;
  return valid ? std::optional(options) : std::nullopt;
}

symforge_store* open_store(const Options& options) {
  symforge_store_options wanted = {};
  wanted.size = sizeof wanted;
  wanted.trees = options.trees.data();
  wanted.tree_count = static_cast<uint32_t>(options.trees.size());
  wanted.idle_byte_limit = options.cache_bytes;
  wanted.missing_milliseconds = kMissingMilliseconds;
  symforge_store* store = nullptr;
  symforge_store_open(&wanted, &store);
  return store;
}

bool serve(const Options& options, symforge_store* store) {
  // The signals end the server from a thread of its own. All threads inherit the mask.
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);

  httplib::Server server;
  server.new_task_queue = [&] {
    return new httplib::ThreadPool(static_cast<size_t>(options.threads));
  };
  server.set_tcp_nodelay(true);
  server.set_keep_alive_max_count(1000);
  add_routes(server, store, options);
  int port = static_cast<int>(options.port);
  if (port == 0) {
    port = server.bind_to_any_port(options.address);
  } else if (!server.bind_to_port(options.address, port)) {
    port = -1;
  }
  if (port < 0) return false;
  std::thread stopper([&] {
    int signal = 0;
    sigwait(&signals, &signal);
    server.stop();
  });
  std::printf("listening on %s:%d\n", options.address.c_str(), port);
  std::fflush(stdout);
  const bool served = server.listen_after_bind();
  pthread_kill(stopper.native_handle(), SIGTERM);
  stopper.join();
  return served;
}

}  // namespace

int main(int argc, char** argv) {
  const std::optional<Options> options = parse_options(argc, argv);
  if (!options) {
    std::fprintf(
        stderr,
        "usage: %s [--listen ADDRESS] [--port PORT] [--cache BYTES] [--max-request BYTES]\n"
        "       [--max-frames COUNT] [--threads COUNT] TREE...\n",
        argv[0]);
    return 2;
  }
  symforge_store* store = open_store(*options);
  if (store == nullptr) {
    std::fprintf(stderr, "%s\n", symforge_last_error());
    return 1;
  }
  const bool served = serve(*options, store);
  symforge_store_close(store);
  if (!served) std::fprintf(stderr, "cannot listen on %s\n", options->address.c_str());
  return served ? 0 : 1;
}
