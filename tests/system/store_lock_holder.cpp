// Holds the writer's lock of a store until it is killed, as a disk that hangs in a commit does.
#include <lmdb.h>
#include <unistd.h>

#include <cstdio>

int main(int argc, char** argv) {
  MDB_env* environment = nullptr;
  MDB_txn* transaction = nullptr;
  if (argc != 2 || mdb_env_create(&environment) != 0 || mdb_env_open(environment, argv[1], 0, 0600) != 0 ||
      mdb_txn_begin(environment, nullptr, 0, &transaction) != 0) {
    return 1;
  }
  std::puts("held");
  std::fflush(stdout);
  ::pause();
  return 0;
}
