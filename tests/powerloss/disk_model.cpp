#include "tests/powerloss/disk_model.h"

#include <algorithm>
#include <optional>
#include <utility>

#include "tests/support/check.h"

namespace vexa::powerloss {
namespace {

// One thing that is kept or lost as a whole.
enum class Part { kName, kContent, kLength, kMode };

// Applies calls, or parts of them, to a disk.
class Writer {
 public:
  Writer(Disk& disk, Loss loss, std::mt19937& random) : disk_(disk), loss_(loss), random_(random) {}

  // The file itself; its names are a part of what the call does.
  void Add(const Call& call) {
    DiskFile& file = disk_.files[call.object];
    file = DiskFile();
    file.is_folder = call.kind == CallKind::kMakeFolder;
    file.mode = call.mode;
  }

  // `fate`: what becomes of its parts.
  enum class Fate { kKept, kUnsynced, kInProgress };
  void Apply(const Call& call, Fate fate, Fate fate_of_mode, bool is_newer) {
    const auto keeps = [&](Part part) { return Keeps(part == Part::kMode ? fate_of_mode : fate, part, is_newer); };
    switch (call.kind) {
      case CallKind::kMakeFolder:
      case CallKind::kCreate:
      case CallKind::kLink:
        if (keeps(Part::kName)) disk_.files[call.folder].names[call.name] = call.object;
        return;
      case CallKind::kRename:
        if (!keeps(Part::kName)) return;
        Erase(call.old_folder, call.old_name, call.object);
        disk_.files[call.folder].names[call.name] = call.object;
        return;
      case CallKind::kRemove:
        if (keeps(Part::kName)) Erase(call.folder, call.name, call.object);
        return;
      case CallKind::kWrite:
        return Write(call, keeps);
      case CallKind::kLength:
        if (keeps(Part::kLength)) SetLength(disk_.files[call.object], call.offset);
        return;
      case CallKind::kGrow: {
        DiskFile& file = disk_.files[call.object];
        if (keeps(Part::kLength)) file.length = std::max(file.length, call.offset);
        return;
      }
      case CallKind::kMode:
        if (keeps(Part::kMode)) disk_.files[call.object].mode = call.mode;
        return;
      case CallKind::kMap:
        disk_.files[call.object].is_mapped = true;
        return;
      case CallKind::kUnnamed:
      case CallKind::kSync:
      case CallKind::kStart:
      case CallKind::kReply:
      case CallKind::kUnsupported:
        return;
    }
  }

 private:
  // `is_newer`: it came after the random call of kNewest.
  bool Keeps(Fate fate, Part part, bool is_newer) {
    if (fate == Fate::kKept) return true;
    const bool by_chance = random_() % 2 == 0;
    switch (loss_) {
      case Loss::kNothing:
        return fate == Fate::kUnsynced;
      case Loss::kEverything:
        return false;
      case Loss::kContents:
        return part == Part::kName;
      case Loss::kBytes:
        return part != Part::kContent;
      case Loss::kNames:
        return part != Part::kName;
      case Loss::kNewest:
        return !is_newer;
      case Loss::kTorn:
        return fate == Fate::kUnsynced || by_chance;
      case Loss::kRandom:
        return by_chance;
    }
    return false;
  }

  // Changes of names that are kept or lost independently: another file may have the name by now.
  void Erase(std::uint32_t folder, const std::string& name, std::uint32_t object) {
    auto& names = disk_.files[folder].names;
    const auto found = names.find(name);
    if (found != names.end() && found->second == object) names.erase(found);
  }

  template <class Keeps>
  void Write(const Call& call, const Keeps& keeps) {
    DiskFile& file = disk_.files[call.object];
    for (std::size_t done = 0; done < call.bytes.size();) {
      const std::uint64_t at = call.offset + done;
      const std::uint64_t sector = at / kSectorBytes;
      const std::size_t begin = at % kSectorBytes;
      const std::size_t count = std::min<std::size_t>(kSectorBytes - begin, call.bytes.size() - done);
      if (keeps(Part::kContent)) {
        std::string& bytes = file.sectors[sector];
        bytes.resize(kSectorBytes);
        bytes.replace(begin, count, call.bytes, done, count);
      }
      done += count;
    }
    if (keeps(Part::kLength)) file.length = std::max(file.length, call.offset + call.bytes.size());
  }

  static void SetLength(DiskFile& file, std::uint64_t length) {
    file.length = length;
    // What is behind the end does not come back when the file grows again.
    file.sectors.erase(file.sectors.lower_bound((length + kSectorBytes - 1) / kSectorBytes), file.sectors.end());
    const auto last = file.sectors.find(length / kSectorBytes);
    if (last != file.sectors.end()) {
      last->second.resize(length % kSectorBytes);
      last->second.resize(kSectorBytes);
    }
  }

  Disk& disk_;
  const Loss loss_;
  std::mt19937& random_;
};

bool MakesFile(CallKind kind) {
  return kind == CallKind::kMakeFolder || kind == CallKind::kCreate || kind == CallKind::kUnnamed;
}

bool IsAboutNames(CallKind kind) {
  return kind == CallKind::kMakeFolder || kind == CallKind::kCreate || kind == CallKind::kLink ||
         kind == CallKind::kRename || kind == CallKind::kRemove;
}

const DiskFile* Find(const Disk& disk, const std::string& path) {
  const DiskFile* at = &disk.files.at(0);
  for (std::size_t begin = 0; begin < path.size();) {
    const std::size_t end = std::min(path.find('/', begin), path.size());
    const auto found = at->names.find(path.substr(begin, end - begin));
    if (found == at->names.end()) return nullptr;
    at = &disk.files.at(found->second);
    begin = end + 1;
  }
  return at;
}

}  // namespace

std::string ToString(Loss loss) {
  constexpr const char* kNames[] = {"nothing", "everything", "contents", "bytes", "names", "newest", "torn", "random"};
  return kNames[static_cast<std::size_t>(loss)];
}

std::string Disk::ContentOf(const std::string& path) const {
  const DiskFile* const file = Find(*this, path);
  if (file == nullptr) return "";
  std::string content(file->length, '\0');
  for (const auto& [number, bytes] : file->sectors) {
    const std::uint64_t at = number * kSectorBytes;
    if (at < file->length)
      content.replace(at, std::min<std::uint64_t>(kSectorBytes, file->length - at), bytes, 0,
                      std::min<std::uint64_t>(kSectorBytes, file->length - at));
  }
  return content;
}

bool Disk::Has(const std::string& path) const { return Find(*this, path) != nullptr; }

DiskModel::DiskModel(std::vector<Call> calls) : calls_(std::move(calls)) {
  const auto is_start = [](const Call& call) { return call.kind == CallKind::kStart; };
  const auto start = std::ranges::find_if(calls_, is_start);
  if (start == calls_.end()) test::Fail("The recording has no beginning");
  start_ = static_cast<std::size_t>(start - calls_.begin()) + 1;
  for (std::size_t i = 0; i < calls_.size(); ++i) {
    if (calls_[i].kind == CallKind::kUnsupported) test::Fail("The recorded program made the " + calls_[i].name);
    if (calls_[i].kind == CallKind::kSync) syncs_[calls_[i].object].push_back(i);
  }
}

Disk DiskModel::After(std::size_t cut, Loss loss, std::mt19937& random) const {
  // How many of the calls were over when the last sync of each file that ended before the cut began.
  std::map<std::uint32_t, std::uint64_t> synced;
  std::map<std::uint32_t, std::uint64_t> synced_with_mode;
  for (const auto& [object, syncs] : syncs_) {
    for (const std::size_t at : syncs) {
      if (at >= cut) break;
      synced[object] = std::max(synced[object], calls_[at].begun);
      if (!calls_[at].is_data_sync) synced_with_mode[object] = std::max(synced_with_mode[object], calls_[at].begun);
    }
  }
  const auto is_synced = [](const auto& all, std::uint32_t object, std::size_t call) {
    const auto found = all.find(object);
    return found != all.end() && call < found->second;
  };
  const std::size_t newest_kept = cut == start_ ? cut : start_ + random() % (cut - start_);
  Disk disk;
  disk.files[0].is_folder = true;
  Writer writer(disk, loss, random);
  for (std::size_t i = 0; i < calls_.size(); ++i) {
    const Call& call = calls_[i];
    const bool is_in_progress = i >= cut;
    if (is_in_progress && call.begun > cut) continue;
    if (MakesFile(call.kind)) writer.Add(call);
    using Fate = Writer::Fate;
    const auto fate = [&](bool is_kept) {
      if (i < start_ || (is_kept && !is_in_progress)) return Fate::kKept;
      return is_in_progress ? Fate::kInProgress : Fate::kUnsynced;
    };
    bool is_kept = call.is_data_sync;
    if (IsAboutNames(call.kind)) {
      is_kept = is_synced(synced, call.folder, i) &&
                (call.kind != CallKind::kRename || is_synced(synced, call.old_folder, i));
    } else {
      is_kept = is_kept || is_synced(synced, call.object, i);
    }
    writer.Apply(call, fate(is_kept), fate(is_synced(synced_with_mode, call.object, i)), i > newest_kept);
  }
  return disk;
}

}  // namespace vexa::powerloss
