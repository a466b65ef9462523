#include "host/api/user/schemas/user_schemas.h"

namespace vexa::api {
namespace {

using namespace shape;  // NOLINT(google-build-using-namespace): the words of the tables below

constexpr std::int64_t kPercent = 100;

Schema Percent(std::string_view description) { return Integer(description).In("percent").From(0).To(kPercent); }

std::vector<SchemaMember> Progress() {
  return {Always("upload_id", RecordId("The upload's id.")),
          Always("received", Bytes("What this host has received, from the beginning on.")),
          Always("size", Bytes("The size of the whole file."))};
}

std::vector<MethodSchema> ImageMethods() {
  constexpr std::string_view kApi = "VEXA.Virtualization.Image";
  const ParameterSchema name{"name", String("").Like("debian-12.iso")};
  const Schema image =
      Object({Always("image_id", RecordId("The image's id.")),
              Always("name", String("The image's name.").Like("debian-12.iso")),
              Always("present", Flag("Whether this host has the file.")),
              Sometimes("size", Bytes("The size of the file. Absent when this host does not have it.")),
              Sometimes("path", String("The file's path. For administrators."))});
  const Schema upload = Object(
      {Always("upload_id", RecordId("The upload's id.")),
       Always("name", String("The image's name.").Like("debian-12.iso")),
       Always("host_id", RecordId("The host that receives it.")),
       Always("user", String("Who has begun it.").Like("alice")), Always("size", Bytes("The size of the whole file.")),
       Sometimes("received", Bytes("What this host has received. Absent for uploads to other hosts."))});
  std::vector<SchemaMember> begun = Progress();
  begun.push_back(Always("image_id", RecordId("The id that the image will have.")));
  return {
      {kApi, "list", {}, Object({Always("images", List(image, "The images, by name."))})},
      {kApi,
       "add",
       {name, {"path", String("").Like("/srv/images/debian-12.iso")}},
       Object({Always("image_id", RecordId("The image's id."))})},
      {kApi,
       "remove",
       {},
       Object({Always("file", String("What becomes of the file: removed; stays; later, when its host can remove it.")
                                  .OneOf({"removed", "stays", "later"})),
               Sometimes("reason", String("Why it stays, or is removed later."))})},
      {kApi, "rename", {name}, Null()},
      {kApi, "upload_begin", {name, {"size", Bytes("").Like(668'991'488)}}, Object(begun)},
      {kApi, "upload_list", {}, Object({Always("uploads", List(upload, "The uploads in progress."))})},
      {kApi, "upload_status", {}, Object(Progress())},
      {kApi, "upload_end", {}, Object({Always("image_id", RecordId("The id of the image."))})},
      {kApi, "upload_cancel", {}, Null()}};
}

std::vector<SchemaMember> RepositoryMembers() {
  const Schema space = Object({Always("total", Bytes("The size of the file systems of its folders.")),
                               Always("used", Bytes("What is used of it.")), Always("free", Bytes("What is free.")),
                               Always("soft_percent", Percent("A warning from here on; 0: never.")),
                               Always("hard_percent", Percent("Full from here on; 0: never.")),
                               Always("headroom_gib", Integer("What has to stay free.").In("GiB").From(0))},
                              "Absent until its host has looked.");
  const Schema storage =
      Object({Always("folders", MapOf(String("What identifies the file system."), "Its folders, by path.")),
              Sometimes("trouble", String("The state that a problem of the storage causes.")),
              Sometimes("not_mounted", List(String("A folder."), "The folders that are not mounted.")),
              Sometimes("reason", String("What is wrong: a sentence.")), Sometimes("since", Time("Since when."))},
             "Its folders and their problems. For administrators.");
  return {Always("repository_id", RecordId("The repository's id.")),
          Always("name", String("The repository's name.").Like("main")),
          Always("host_id", String("The id of its host.").Like("8f14e45f-ceea-467f-a9d1-0f2b6c1e4a01")),
          Always("state", String("Its state now, such as online, unavailable, full or crashed.").Like("online")),
          Sometimes("space", space),
          Sometimes("storage", storage)};
}

Schema RepositoryWithContents() {
  const Schema disk =
      Object({Always("vdisk_id", RecordId("The disk's id.")), Always("path", String("The path of its file.")),
              Always("size_mib", Integer("Its size as the guest sees it.").In("MiB").From(0)),
              Sometimes("allocated", Bytes("What the file takes. Only on the repository's own host."))});
  const Schema guest = Object({Always("guest_id", String("The guest's id; \"\" for disks without a guest.")),
                               Always("name", String("The guest's name.").Like("web-1")),
                               Always("vdisks", List(disk, "Its disks in this repository."))});
  const Schema file = Object({Always("path", String("The file's path.")), Always("size", Bytes("Its size.")),
                              Always("allocated", Bytes("What it takes."))});
  std::vector<SchemaMember> members = RepositoryMembers();
  members.push_back(Always("guests", List(guest, "The guests that are in it.")));
  members.push_back(Sometimes("files", List(file,
                                            "Files in its folders that no record names, at most 1,000. Only on "
                                            "its own host.")));
  return Object(std::move(members));
}

std::vector<MethodSchema> RepositoryMethods() {
  constexpr std::string_view kApi = "VEXA.Virtualization.Repository";
  const ParameterSchema name{"name", String("").Like("main")};
  return {{kApi, "list", {}, Object({Always("repositories", List(Object(RepositoryMembers()), "The repositories."))})},
          {kApi, "add", {name}, Object({Always("repository_id", RecordId("The repository's id."))})},
          {kApi, "get", {}, RepositoryWithContents()},
          {kApi, "rename", {name}, Null()},
          {kApi, "limits", {{"soft_percent", Percent("")}, {"hard_percent", Percent("")}}, Null()},
          {kApi, "remove", {}, Null()},
          {kApi, "accept", {}, Null()}};
}

}  // namespace

std::vector<MethodSchema> StorageSchemas() {
  std::vector<MethodSchema> schemas = ImageMethods();
  for (MethodSchema& method : RepositoryMethods()) schemas.push_back(std::move(method));
  return schemas;
}

}  // namespace vexa::api
