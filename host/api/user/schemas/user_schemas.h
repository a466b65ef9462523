// The shapes of the parameters and replies of all methods for users.
#pragma once

#include <string>
#include <vector>

#include "host/api/method_schema.h"

namespace vexa::api {

// All of the tables below. Made once. Threads: any.
const std::vector<MethodSchema>& UserSchemas();

std::vector<MethodSchema> AccountSchemas();    // VEXA.Core.Session, VEXA.Core.Account
std::vector<MethodSchema> ClusterSchemas();    // VEXA.Virtualization.Cluster, VEXA.Virtualization.Log
std::vector<MethodSchema> GuestSchemas();      // VEXA.Virtualization.Guest, without the next ones; …Guest.Action
std::vector<MethodSchema> GuestEditSchemas();  // its methods set, create and import
std::vector<MethodSchema> HostSchemas();       // VEXA.Virtualization.Host
std::vector<MethodSchema> NetworkSchemas();    // VEXA.Virtualization.Network
std::vector<MethodSchema> StorageSchemas();    // VEXA.Virtualization.Image, VEXA.Virtualization.Repository

// How severe a displayed state is.
Schema Severity();
// A displayed state of one kind of object, whose values the library's table of states has. `category` is one of
// VexaVirtualization's STATE_CATE_….
Schema DisplayedState(int category, const std::string& description);
Schema MacAddress(const std::string& description);
// A disk and an interface of a guest as `get` has them.
Schema StoredDiskSchema();
Schema StoredNicSchema();

}  // namespace vexa::api
