// `qvfilter serve [--port 8080] [--host 127.0.0.1] [--open] [IMAGE]`: the studio, a web page
// served by this binary (its files are compiled in) with a JSON API over the studio's
// sessions (ServeStudio.h). Every answer to a bad request is an HTTP 4xx with
// {"error": "one line"}.
//
//   GET    /                                     the page (and its other embedded files)
//   GET    /api/filters                          [{name, displayName, categories}]
//   GET    /api/textures                         [{identifier, displayName, tags: [{tag, key}]}]
//   GET    /api/textures/thumbnail?id=ID&size=N  a texture's thumbnail (ID: a texture identifier)
//   POST   /api/sessions                         a new session's state
//   DELETE /api/sessions/S
//   GET    /api/sessions/S                       {session, image, steps, canUndo, canRedo, revision}
//   POST   /api/sessions/S/image?name=N          open the picture in the body (JPEG, PNG, WebP)
//   POST   /api/sessions/S/sample                open the generated sample
//   GET    /api/sessions/S/preview?size=N[&before=1][&draft=1]   JPEG (transparent parts over a
//                                                checkerboard); 204 superseded; a draft is half the size
//   POST   /api/sessions/S/steps                 {"filter": NAME} appends a step
//   GET    /api/sessions/S/steps/T               state + {"step", "view"} (the view tree)
//   DELETE /api/sessions/S/steps/T
//   POST   /api/sessions/S/steps/T/move          {"position": N}
//   POST   /api/sessions/S/steps/T/enabled       {"enabled": bool}
//   POST   /api/sessions/S/steps/T/edit          {"control": [..], "value": text | "index": N, "gesture": G}
//   POST   /api/sessions/S/steps/T/image?control=0.1.2&name=N   an image for an image well
//   POST   /api/sessions/S/undo, /redo
//   GET    /api/sessions/S/recipe?format=png&quality=0.9        the chain as a recipe
//   POST   /api/sessions/S/recipe                import a recipe (the body)
//   POST   /api/sessions/S/exports               {"format": "jpeg"|"png"|"webp", "quality": 0..1}
//   GET    /api/sessions/S/exports/J             {job, progress, done, error?, name?}
//   GET    /api/sessions/S/exports/J/file        the finished file, as a download
#include <algorithm>
#include <atomic>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <pthread.h>
#include <spawn.h>
#include <string>
#include <sys/wait.h>
#include <thread>

#include <httplib.h>
#include <nlohmann/json.hpp>

#include "Command.h"
#include "EmbeddedFiles.h"
#include "ImageIO/ImageIO.h"
#include "PlugIns.h"
#include "Recipe.h"
#include "ServeStudio.h"
#include "StudioRequests.h"
#include "TextureCatalogue.h"
#include "TextureIndexFile.h"
#include "Foundation/NSURL.h"

extern char** environ;

namespace {

namespace fs = std::filesystem;
using json = nlohmann::json;
using qv::studio::StudioError;
using qv::studio::readJSONBody;
using qv::studio::readQueryNumber;
using qv::studio::readWholeNumber;

struct ServeOptions {
  int port = 8080;
  std::string host = "127.0.0.1";
  bool open = false;
  std::string image;
};

void sendJSON(httplib::Response& res, const json& body, int status = 200) {
  res.status = status;
  res.set_header("Cache-Control", "no-store");
  res.set_content(body.dump(-1, ' ', false, json::error_handler_t::replace), "application/json");
}

void sendError(httplib::Response& res, int status, const std::string& message) {
  sendJSON(res, {{"error", message}}, status);
}

// A query parameter, when the request has it.
std::optional<std::string> queryParam(const httplib::Request& req, const char* name) {
  if (!req.has_param(name)) return std::nullopt;
  return req.get_param_value(name);
}

std::string contentTypeFor(const std::string& path) {
  const std::string ext = fs::path(path).extension().string();
  if (ext == ".html") return "text/html; charset=utf-8";
  if (ext == ".css") return "text/css; charset=utf-8";
  if (ext == ".js") return "text/javascript; charset=utf-8";
  if (ext == ".svg") return "image/svg+xml";
  if (ext == ".png") return "image/png";
  return "application/octet-stream";
}

// The texture catalogue for the page, as the plug-in's store gives it; thumbnails made on
// demand from the catalogue's own files and kept.
class Textures {
 public:
  json list() {
    std::lock_guard lock(mutex_);
    load();
    return list_;
  }

  // Encoded thumbnail and its content type; the id is a texture identifier of the catalogue,
  // never a path.
  std::pair<std::string, std::string> thumbnail(const std::string& id, int size, const fs::path& scratch) {
    std::lock_guard lock(mutex_);
    load();
    const auto file = files_.find(id);
    if (file == files_.end()) throw StudioError{404, "no texture \"" + id + "\" in the catalogue"};
    const std::string cacheKey = id + "@" + std::to_string(size);
    if (auto it = thumbnails_.find(cacheKey); it != thumbnails_.end()) return it->second;
    auto source = file->second.empty() ? nullptr : CGImageSourceCreateWithURL(file->second);
    CGImageRef thumb;
    if (source)
      thumb = CGImageSourceCreateThumbnailAtIndex(
          source, 0,
          Dictionary{{kCGImageSourceThumbnailMaxPixelSize, size},
                     {kCGImageSourceCreateThumbnailFromImageAlways, Value::boolean(true)},
                     {kCGImageSourceCreateThumbnailWithTransform, Value::boolean(true)}});
    thumb = CGImageCreateWithBitsPerComponent(thumb, 8);
    if (!thumb) throw StudioError{404, "the texture \"" + id + "\" cannot be read"};
    const bool alpha = thumb->hasAlpha;
    const fs::path path = scratch / (alpha ? "thumbnail.png" : "thumbnail.jpg");
    auto dest = CGImageDestinationCreateWithURL(path.string(), alpha ? kUTTypePNG : kUTTypeJPEG);
    if (!dest || !CGImageDestinationAddImage(dest, thumb, Dictionary{{kCGImageDestinationLossyCompressionQuality, 0.85}}) ||
        !CGImageDestinationFinalize(dest))
      throw StudioError{500, "cannot encode the thumbnail"};
    std::ifstream in(path, std::ios::binary);
    std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    std::error_code ec;
    fs::remove(path, ec);
    auto& entry = thumbnails_[cacheKey];
    entry = {bytes, alpha ? "image/png" : "image/jpeg"};
    return entry;
  }

 private:
  void load() {
    if (loaded_) return;
    loaded_ = true;
    list_ = json::array();
    const qv::TextureCatalogue& catalogue = qv::loadedTextureCatalogue();
    // The files behind the identifiers: the index's file names, inside the bundle's Textures
    // folder only (the bundle refuses names that leave it).
    qv::TextureIndexFile index;
    try {
      index = qv::loadTextureIndexFile("");
    } catch (const qv::CatalogueError&) {
      // No loaded bundle: textures are listed without thumbnails.
    }
    const Dictionary* records = index.textures.dictionary();
    for (const qv::CatalogueTexture& texture : catalogue.textures) {
      const auto url = NSURL::URLWithString(texture.identifier);
      const std::string key = url ? url->lastPathComponent() : std::string();
      std::string path;
      if (records)
        if (const auto record = records->find(key); record != records->end()) path = qv::texturePath(index, record->second);
      files_[texture.identifier] = path;
      json tags = json::array();
      for (const std::string& tag : texture.tags) {
        const auto it = std::find_if(catalogue.tags.begin(), catalogue.tags.end(),
                                     [&](const qv::CatalogueTag& t) { return t.tag == tag; });
        tags.push_back({{"tag", tag}, {"key", it == catalogue.tags.end() ? std::string() : it->key}});
      }
      list_.push_back({{"identifier", texture.identifier},
                       {"displayName", texture.displayName.empty() ? key : texture.displayName},
                       {"tags", tags}});
    }
  }

  std::mutex mutex_;
  bool loaded_ = false;
  json list_;
  std::map<std::string, std::string> files_;  // identifier -> file
  std::map<std::string, std::pair<std::string, std::string>> thumbnails_;
};

// Runs a handler, turning the studio's refusals and any other failure into JSON answers.
template <typename F>
httplib::Server::Handler guarded(F f) {
  return [f](const httplib::Request& req, httplib::Response& res) {
    try {
      f(req, res);
    } catch (const StudioError& e) {
      sendError(res, e.status, e.message);
    } catch (const std::exception& e) {
      sendError(res, 500, e.what());
    }
  };
}

bool isLoopback(const std::string& host) {
  return host == "127.0.0.1" || host == "localhost" || host == "::1" || host.starts_with("127.");
}

void openBrowser(const std::string& url) {
  pid_t pid = 0;
  const char* argv[] = {"xdg-open", url.c_str(), nullptr};
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
  posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
  if (posix_spawnp(&pid, "xdg-open", &actions, nullptr, const_cast<char**>(argv), environ) != 0) {
    std::fprintf(stderr, "qvfilter: cannot start a browser (xdg-open); open %s yourself\n", url.c_str());
  } else {
    std::thread([pid] { waitpid(pid, nullptr, 0); }).detach();
  }
  posix_spawn_file_actions_destroy(&actions);
}

void runServe(const ServeOptions& options) {
  if (options.port < 0 || options.port > 65535) throw qv::CommandError{"--port must lie in 0...65535"};
  if (!options.image.empty()) {
    std::error_code ec;
    if (!fs::is_regular_file(options.image, ec)) throw qv::CommandError{"cannot read " + options.image + ": no such file"};
    if (!CGImageSourceCreateWithURL(options.image))
      throw qv::CommandError{"cannot open " + options.image + ": " + CGImageSourceGetCreateError()};
  }
  qvLoadPlugIns();
  qv::prepareFilterRegistry();

  // Ctrl-C and SIGTERM are taken by one thread that stops the server; every other thread
  // (the server's pool, the renderer's) runs with them blocked.
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);

  char scratchTemplate[] = "/tmp/qvfilter-studio-XXXXXX";
  const char* scratch = mkdtemp(scratchTemplate);
  if (!scratch) throw qv::CommandError{"cannot make a working folder in /tmp"};
  const fs::path root(scratch);
  auto sessions = std::make_shared<qv::studio::SessionTable>(root / "sessions");
  auto textures = std::make_shared<Textures>();
  const json filters = qv::studio::filterListJSON();

  httplib::Server server;
  server.new_task_queue = [] { return new httplib::ThreadPool(8); };
  server.set_payload_max_length(qv::studio::kMaxUploadBytes + (1u << 20));
  server.set_read_timeout(30, 0);
  server.set_write_timeout(60, 0);
  server.set_keep_alive_max_count(1000);
  // Answers go out at once: with Nagle's algorithm the body, written after the headers, waited
  // for the browser's delayed acknowledgement of them (about 40 ms on every request).
  server.set_tcp_nodelay(true);
  const bool loopbackOnly = isLoopback(options.host);
  server.set_pre_routing_handler([loopbackOnly](const httplib::Request& req, httplib::Response& res) {
    // A page from elsewhere must not reach a loopback server through a name of its own.
    if (loopbackOnly) {
      std::string host = req.get_header_value("Host");
      if (auto colon = host.rfind(':'); colon != std::string::npos && host.find(']') == std::string::npos) host.resize(colon);
      if (host.starts_with("[")) host = host.substr(1, host.find(']') - 1);
      if (!host.empty() && !isLoopback(host)) {
        sendError(res, 403, "this studio answers only on the loopback address");
        return httplib::Server::HandlerResponse::Handled;
      }
    }
    return httplib::Server::HandlerResponse::Unhandled;
  });
  server.set_error_handler([](const httplib::Request&, httplib::Response& res) {
    if (!res.body.empty()) return;
    sendError(res, res.status,
              res.status == 404   ? "no such resource"
              : res.status == 413 ? "the request body is too large"
              : res.status == 414 ? "the address is too long"
                                  : "bad request");
  });
  server.set_exception_handler([](const httplib::Request&, httplib::Response& res, std::exception_ptr ep) {
    try {
      std::rethrow_exception(ep);
    } catch (const std::exception& e) {
      sendError(res, 500, e.what());
    } catch (...) {
      sendError(res, 500, "internal error");
    }
  });

  // The page.
  for (std::size_t i = 0; i < qv::studio::kEmbeddedFileCount; ++i) {
    const qv::EmbeddedFile& file = qv::studio::kEmbeddedFiles[i];
    const std::string path = file.path;
    auto serveFile = [&file, path](const httplib::Request&, httplib::Response& res) {
      res.set_header("Cache-Control", "no-cache");
      res.set_content(reinterpret_cast<const char*>(file.bytes), file.size, contentTypeFor(path).c_str());
    };
    std::string pattern;
    for (char c : path) {
      if (std::isalnum(static_cast<unsigned char>(c)) || c == '/' || c == '-' || c == '_') pattern += c;
      else pattern += std::string("\\") + c;
    }
    server.Get(pattern, serveFile);
    if (path == "/index.html") server.Get("/", serveFile);
  }

  server.Get("/api/filters", guarded([filters](const httplib::Request&, httplib::Response& res) { sendJSON(res, filters); }));
  server.Get("/api/textures",
             guarded([textures](const httplib::Request&, httplib::Response& res) { sendJSON(res, textures->list()); }));
  server.Get("/api/textures/thumbnail", guarded([textures, root](const httplib::Request& req, httplib::Response& res) {
               if (!req.has_param("id")) throw StudioError{400, "a thumbnail needs an \"id\""};
               const int size =
                   static_cast<int>(std::clamp(readQueryNumber(queryParam(req, "size"), "size", 96), 16.0, 512.0));
               auto [bytes, type] = textures->thumbnail(req.get_param_value("id"), size, root);
               res.set_header("Cache-Control", "max-age=3600");
               res.set_content(bytes, type.c_str());
             }));

  const std::string initialImage = options.image;
  server.Post("/api/sessions", guarded([sessions, initialImage](const httplib::Request&, httplib::Response& res) {
                auto session = sessions->create();
                json state = session->state();
                if (!initialImage.empty()) {
                  try {
                    state = session->openFile(initialImage);
                  } catch (const StudioError&) {
                  }
                }
                sendJSON(res, state, 201);
              }));

  const std::string S = "/api/sessions/([0-9a-f]{1,64})";
  const std::string T = S + "/steps/([0-9]{1,12})";
  auto stepOf = [](const httplib::Request& req) {
    return static_cast<int>(readWholeNumber(req.matches[2], 1 << 30, "the step"));
  };

  server.Get(S, guarded([sessions](const httplib::Request& req, httplib::Response& res) {
               sendJSON(res, sessions->find(req.matches[1])->state());
             }));
  server.Delete(S, guarded([sessions](const httplib::Request& req, httplib::Response& res) {
                  if (!sessions->remove(req.matches[1])) throw StudioError{404, "no such session"};
                  sendJSON(res, {{"deleted", true}});
                }));
  server.Post(S + "/image", guarded([sessions](const httplib::Request& req, httplib::Response& res) {
                auto session = sessions->find(req.matches[1]);
                const std::string name = req.has_param("name") ? req.get_param_value("name") : "image";
                sendJSON(res, session->openUpload(name, req.body));
              }));
  server.Post(S + "/sample", guarded([sessions](const httplib::Request& req, httplib::Response& res) {
                sendJSON(res, sessions->find(req.matches[1])->openSample());
              }));
  server.Get(S + "/preview", guarded([sessions](const httplib::Request& req, httplib::Response& res) {
               auto session = sessions->find(req.matches[1]);
               const int size =
                   static_cast<int>(std::clamp(readQueryNumber(queryParam(req, "size"), "size", 1024), 1.0, 100000.0));
               const bool before = req.has_param("before") && req.get_param_value("before") == "1";
               const bool draft = req.has_param("draft") && req.get_param_value("draft") == "1";
               const qv::studio::Preview p = session->preview(size, before, draft);
               res.set_header("Cache-Control", "no-store");
               if (p.superseded) {
                 res.status = 204;
                 return;
               }
               res.set_header("X-Preview-Scale", std::to_string(p.scale));
               res.set_header("X-Preview-Size", std::to_string(p.width) + "x" + std::to_string(p.height));
               res.set_header("Server-Timing", p.timing);
               res.set_content(p.bytes, p.contentType.c_str());
             }));
  server.Post(S + "/steps", guarded([sessions](const httplib::Request& req, httplib::Response& res) {
                auto session = sessions->find(req.matches[1]);
                sendJSON(res, session->addStep(qv::studio::readStepFilter(readJSONBody(req.body))), 201);
              }));
  server.Get(T, guarded([sessions, stepOf](const httplib::Request& req, httplib::Response& res) {
               sendJSON(res, sessions->find(req.matches[1])->view(stepOf(req)));
             }));
  server.Delete(T, guarded([sessions, stepOf](const httplib::Request& req, httplib::Response& res) {
                  sendJSON(res, sessions->find(req.matches[1])->removeStep(stepOf(req)));
                }));
  server.Post(T + "/move", guarded([sessions, stepOf](const httplib::Request& req, httplib::Response& res) {
                auto session = sessions->find(req.matches[1]);
                const std::size_t position = qv::studio::readStepPosition(readJSONBody(req.body));
                sendJSON(res, session->moveStep(stepOf(req), position));
              }));
  server.Post(T + "/enabled", guarded([sessions, stepOf](const httplib::Request& req, httplib::Response& res) {
                auto session = sessions->find(req.matches[1]);
                const bool enabled = qv::studio::readStepEnabled(readJSONBody(req.body));
                sendJSON(res, session->setStepEnabled(stepOf(req), enabled));
              }));
  server.Post(T + "/edit", guarded([sessions, stepOf](const httplib::Request& req, httplib::Response& res) {
                auto session = sessions->find(req.matches[1]);
                sendJSON(res, session->edit(stepOf(req), readJSONBody(req.body)));
              }));
  server.Post(T + "/image", guarded([sessions, stepOf](const httplib::Request& req, httplib::Response& res) {
                auto session = sessions->find(req.matches[1]);
                const std::vector<std::size_t> control =
                    qv::studio::readControlPath(queryParam(req, "control").value_or(""));
                const std::string name = req.has_param("name") ? req.get_param_value("name") : "image";
                sendJSON(res, session->setImageInput(stepOf(req), control, name, req.body));
              }));
  server.Post(S + "/undo", guarded([sessions](const httplib::Request& req, httplib::Response& res) {
                sendJSON(res, sessions->find(req.matches[1])->undo());
              }));
  server.Post(S + "/redo", guarded([sessions](const httplib::Request& req, httplib::Response& res) {
                sendJSON(res, sessions->find(req.matches[1])->redo());
              }));
  server.Get(S + "/recipe", guarded([sessions](const httplib::Request& req, httplib::Response& res) {
               auto session = sessions->find(req.matches[1]);
               const qv::studio::RecipeQuery query =
                   qv::studio::readRecipeQuery(queryParam(req, "format"), queryParam(req, "quality"));
               res.set_header("Content-Disposition", "attachment; filename=\"recipe.json\"");
               sendJSON(res, session->recipe(query.outputFile, query.quality));
             }));
  server.Post(S + "/recipe", guarded([sessions](const httplib::Request& req, httplib::Response& res) {
                sendJSON(res, sessions->find(req.matches[1])->importRecipe(req.body));
              }));
  server.Post(S + "/exports", guarded([sessions](const httplib::Request& req, httplib::Response& res) {
                auto session = sessions->find(req.matches[1]);
                const qv::studio::ExportRequest request = qv::studio::readExportRequest(readJSONBody(req.body));
                sendJSON(res, session->startExport(request.format, request.quality), 202);
              }));
  server.Get(S + "/exports/([0-9]{1,12})", guarded([sessions](const httplib::Request& req, httplib::Response& res) {
               auto session = sessions->find(req.matches[1]);
               sendJSON(res, session->exportStatus(static_cast<std::uint64_t>(readWholeNumber(req.matches[2], 1ll << 40, "the export"))));
             }));
  server.Get(S + "/exports/([0-9]{1,12})/file", guarded([sessions](const httplib::Request& req, httplib::Response& res) {
               auto session = sessions->find(req.matches[1]);
               auto job = session->finishedExport(static_cast<std::uint64_t>(readWholeNumber(req.matches[2], 1ll << 40, "the export")));
               std::ifstream in(job->path, std::ios::binary);
               if (!in) throw StudioError{410, "the exported file is gone"};
               std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
               res.set_header("Content-Disposition", "attachment; filename=\"" + job->downloadName + "\"");
               res.set_header("Cache-Control", "no-store");
               res.set_content(std::move(bytes), job->type.c_str());
             }));

  int port = options.port;
  if (port == 0) {
    port = server.bind_to_any_port(options.host.c_str());
  } else if (!server.bind_to_port(options.host.c_str(), port)) {
    port = -1;
  }
  if (port < 0) {
    std::error_code ec;
    fs::remove_all(root, ec);
    throw qv::CommandError{"cannot listen on " + options.host + ":" + std::to_string(options.port) +
                           " (is the port in use?)"};
  }
  const std::string hostForURL = options.host.find(':') != std::string::npos ? "[" + options.host + "]" : options.host;
  const std::string url = "http://" + hostForURL + ":" + std::to_string(port) + "/";
  std::printf("qvfilter studio: %s (Ctrl-C stops it)\n", url.c_str());
  std::fflush(stdout);
  if (options.open) openBrowser(url);

  std::atomic<bool> signalled{false};
  std::thread stopper([&server, &signalled, signals] {
    int sig = 0;
    sigwait(&signals, &sig);
    signalled = true;
    server.stop();
  });
  server.listen_after_bind();
  // Stopped otherwise than by a signal (a listening error): release the stopper.
  if (!signalled) pthread_kill(stopper.native_handle(), SIGTERM);
  stopper.join();
  sessions->clear();
  std::error_code ec;
  fs::remove_all(root, ec);
  std::printf("qvfilter studio: stopped\n");
}

const qv::CommandRegistration registration(90, [](CLI::App& app) {
  auto options = std::make_shared<ServeOptions>();
  CLI::App* cmd = app.add_subcommand("serve", "Serve the studio: a web page to try filters and chains on a picture");
  cmd->add_option("image", options->image, "A picture to open in every new page (JPEG, PNG or WebP)");
  cmd->add_option("--port", options->port, "Port (default 8080; 0 picks a free one)");
  cmd->add_option("--host", options->host, "Address to listen on (default 127.0.0.1, this machine only)");
  cmd->add_flag("--open", options->open, "Open the page in the desktop's browser");
  cmd->callback([options] { runServe(*options); });
});

}  // namespace
