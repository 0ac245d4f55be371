#ifndef MORVOCAT_FILESETS_SET_ORDER_H_
#define MORVOCAT_FILESETS_SET_ORDER_H_

// The writing order of a set's files, read from their names alone: by
// index, across the wrap from 999 to 000, with the time stamps deciding
// where writing stopped when the indices have gaps (or hold every value).
// One rule for the set's owners, which pick their next index by it, and for
// the tools that read a set back.

#include <stdint.h>

#include <string>
#include <vector>

namespace filesets {

// Moves the entries after the first pivot to the front, keeping order.
void RotateToBack(std::vector<std::string>& list, const std::string& pivot);

// The entry with the latest stamp (the earlier one on equal stamps); empty
// when no entry has a stamp.
std::string NewestByStamp(const std::vector<std::string>& list, const std::string& basePath);

// Puts a list sorted by ByteOrderBefore into writing order; drops entries
// whose index field reads negative.
void OrderAsWritten(std::vector<std::string>& list, const std::string& basePath);

// Sorts the set names of basePath and puts them into writing order.
void SortAsWritten(std::vector<std::string>& list, const std::string& basePath);

}  // namespace filesets

#endif  // MORVOCAT_FILESETS_SET_ORDER_H_
