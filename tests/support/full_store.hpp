// A configuration store with one record of every kind the feature keeps, the zone database
// included, and the text each part of the generation makes of it: a test that takes a part away
// (a failing lookup, walk or allocation) knows exactly which lines go with it.
#pragma once

#include <string>
#include <vector>

#include "store.hpp"

namespace zfxtest::full {

std::vector<Record> records();

// The text, in the order the generation renders it.
extern const std::string kHead;       // feature, NAT and distribution lines
extern const std::string kVdomList;   // the virtual domains of the single record
extern const std::string kVdomAfid;   // the virtual domains of the table, one line per AFID
extern const std::string kTail;       // the other global lines
extern const std::string kZone;       // the zone section: a zone, its member, a zoneset, the activation
extern const std::string kTopo;       // the VSAN topology tables
extern const std::string kTopoAuto;   // the topology mode
extern const std::string kDefaultAfid, kAfid;
extern const std::string kActiveSg;   // the active service groups
extern const std::string kCfgSg;      // the changes of the configured ones
extern const std::string kPfcid;
extern const std::string kCommit;

// The whole text with tables and vdoms in their places.
std::string text(const std::string &tables, const std::string &vdoms = kVdomList + kVdomAfid);
// Everything the store holds, as text.
std::string whole();

}  // namespace zfxtest::full
