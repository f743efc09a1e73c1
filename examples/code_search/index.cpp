// Knows in which lines of a directory's files each word stands: asks the service "FileWatch" for
// what is there and what changes, and provides "CodeIndex" to editors.
//
//   code_index DIRECTORY [-hl_zone ZONE | -hl_connect_hublink_port PORT]
//
// A watcher that goes is waited for again; what is known stays usable meanwhile.
#include <cstdio>
#include <filesystem>
#include <set>

#include "codeindex.h"
#include "filewatch.h"
#include "hublink_plugin/hub_finder.h"
#include "word_index.h"

namespace {

// All editors that are there, which are told of changes.
class Editor;
using Editors = std::set<Editor*>;

// The side towards one editor.
class Editor : public codeindex::Provider {
 public:
  Editor(const WordIndex* words, Editors* editors) : words_(words), editors_(editors) {
    editors_->insert(this);
  }
  ~Editor() override { editors_->erase(this); }

  void tellState() {
    updated({.files = static_cast<std::int32_t>(words_->files()),
             .words = static_cast<std::int32_t>(words_->words())});
  }

 protected:
  hublink::Result<codeindex::SearchReply> onSearch(const codeindex::Search& search) override {
    if (search.word.empty()) return hublink::refuse("there is no word to look for");
    std::int32_t hits = 0;
    words_->find(search.word,
                 [&](const std::string& path, std::size_t line, const std::string& text) {
                   if (hits++ < search.limit)
                     hit({.path = path, .line = static_cast<std::int32_t>(line), .text = text});
                 });
    return codeindex::SearchReply{.hits = hits};
  }

 private:
  const WordIndex* words_;
  Editors* editors_;
};

// The side towards the watcher.
class Watcher : public filewatch::Reader {
 public:
  Watcher(WordIndex* words, const Editors* editors) : words_(words), editors_(editors) {}

  /// Has all files told. What was known before is forgotten: nobody has told of changes since.
  bool start(const std::string& directory) {
    words_->clear();
    isStarting_ = true;
    const auto reply = watch({.directory = directory});
    isStarting_ = false;
    if (!reply) {
      std::printf("index: %s\n", reply.text().c_str());
      return false;
    }
    std::printf("index: %zu files are watched\n", words_->files());
    tellEditors();
    return true;
  }

 protected:
  void onChanged(const filewatch::Changed& file) override {
    words_->put(file.path);
    tellEditors();
  }
  void onRemoved(const filewatch::Removed& file) override {
    words_->remove(file.path);
    tellEditors();
  }

 private:
  void tellEditors() {
    if (isStarting_) return;
    for (Editor* editor : *editors_) editor->tellState();
  }

  WordIndex* words_;
  const Editors* editors_;
  bool isStarting_ = false;
};

int serve(HublinkPlugin& plugin, const std::string& directory) {
  WordIndex words;
  Editors editors;
  const auto welcome = [&](const std::shared_ptr<HublinkLink>& link) {
    auto editor = std::make_unique<Editor>(&words, &editors);
    Editor* const each = editor.get();
    hublink::keepOn(link, std::move(editor));
    if (words.files() > 0) each->tellState();
  };
  if (plugin.registerService("CodeIndex", welcome) == -1) {
    std::fputs("index: the hub has not registered the service\n", stderr);
    return 1;
  }
  while (plugin.isConnected()) {
    const auto watcher = hublink::find<Watcher>(plugin, "FileWatch", -1, &words, &editors);
    if (!watcher) break;
    if (!(*watcher)->start(directory)) continue;
    plugin.serveUntil([&] { return !(*watcher)->isUp(); }, -1);
    std::printf("index: the watcher has gone\n");
  }
  std::fputs("index: the hub has gone\n", stderr);
  return 1;
}

}  // namespace

int main(int argc, char** argv) {
  std::setvbuf(stdout, nullptr, _IOLBF, BUFSIZ);
  if (argc < 2 || argv[1][0] == '-') {
    std::fputs("index: no directory is given\n", stderr);
    return 2;
  }
  HublinkPlugin plugin;
  std::string error;
  if (!connectToHub(plugin, argc, argv, error)) {
    std::fprintf(stderr, "index: %s\n", error.c_str());
    return 1;
  }
  return serve(plugin, std::filesystem::absolute(argv[1]).string());
}
