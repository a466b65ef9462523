// vexa image.
#include <CLI/CLI.hpp>
#include <filesystem>
#include <iostream>
#include <memory>
#include <string>
#include <system_error>

#include "cli/commands.h"
#include "cli/image_command.h"
#include "cli/printable.h"
#include "host/store/lmdb_store.h"

namespace vexa::cli {
namespace {

constexpr const char* kFooter =
    "\nExamples:\n  vexa image add debian-12 /var/lib/vexa/images/debian-12.iso\n  vexa image list\n\n"
    "The id is what 'vexa guest set --iso' takes. The file must be below a folder with images: 'images' in the data\n"
    "folder, or what --image-root says, as 'image-roots' does in the daemon's settings.";

struct State {
  std::string data_directory = "/var/lib/vexa";
  NewImage image;
};

ExitCode Fail(const Error& error) {
  std::cerr << "vexa: " << Printable(error.ToString()) << "\n";
  return error.code() == ErrorCode::kInvalid ? ExitCode::kUsage : ExitCode::kFailed;
}

template <class Act>
ExitCode WithStore(const State& state, const Act& act) {
  store::LmdbOptions options;
  options.directory = state.data_directory + "/store";
  const auto store = store::OpenLmdbStore(options);
  if (!store) return Fail(store.error());
  const Status done = act(**store);
  return done ? ExitCode::kOk : Fail(done.error());
}

ExitCode RunAdd(State& state) {
  if (state.image.roots.empty()) {
    std::error_code no_path;  // an empty one is refused
    const auto data = std::filesystem::absolute(state.data_directory, no_path).lexically_normal();
    state.image.roots.push_back(data / "images");
  }
  return WithStore(state, [&](store::Store& store) { return AddImage(state.image, store, std::cout); });
}

}  // namespace

void AddImageCommands(CLI::App& app, Invocation& invocation) {
  const auto state = std::make_shared<State>();
  const GlobalOptions& global = invocation.global;
  auto* image =
      app.add_subcommand("image", "The ISO images that guests' drives can hold, in the database of this host");
  image->require_subcommand(1);
  image->footer(kFooter);
  const auto add_data = [&](CLI::App* command) {
    command->add_option("--data", state->data_directory, "The data folder of the host")
        ->type_name("DIR")
        ->capture_default_str();
  };

  auto* add = image->add_subcommand("add", "Add an image, and print its id");
  add->add_option("NAME", state->image.name, "Its name")->required();
  add->add_option("FILE", state->image.path, "Its file")->required();
  add->add_option("--id", state->image.id, "Its id (default: a new one)")->type_name("UUID");
  add->add_option("--image-root", state->image.roots,
                  "A folder with images (default: 'images' in the data folder); may be repeated")
      ->type_name("DIR")
      ->allow_extra_args(false);
  add_data(add);
  add->callback([&invocation, state] { invocation.run = [state] { return RunAdd(*state); }; });

  auto* list = image->add_subcommand("list", "Id, name, size, presence and path of each");
  add_data(list);
  list->callback([&invocation, &global, state] {
    invocation.run = [&global, state] {
      return WithStore(*state, [&](store::Store& store) {
        return ListImages(store, global.json ? ImageForm::kJson : ImageForm::kTable, std::cout);
      });
    };
  });
}

}  // namespace vexa::cli
