#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace velmora {

// The tree on every destination: <root>/<date>/<card>/, in it the card's own files and three folders of this program.
//
//   <card>/<dir>/.<name>.offload-part   a file while it is being written
//   <card>/.offload-flush               one byte that carries the device flush, there for a moment
//   <card>/_REPORT/                     manifest, reports, checksum lists
//   <card>/_PROXY/                      proxies
//   <card>/ascmhl/                      ASC MHL generations and chain
namespace Layout {

inline constexpr std::string_view reportDirName = "_REPORT";
inline constexpr std::string_view proxyDirName = "_PROXY";
inline constexpr std::string_view mhlDirName = "ascmhl";

// One of the three names above, in any case.
bool isReserved(std::string_view name);

// The present date in the computer's time zone, "yyyy-MM-dd".
std::string today();
// `date` names a day of the calendar in this form.
bool isDate(std::string_view date);

// A name that can stand as one folder below the date: never empty, never a path, never a reserved name.
std::string sanitize(std::string_view name);
// The volume's name if `path` is the root of a named volume, else the last component of `path`; sanitised.
std::string defaultCardName(const std::string& path);
// `name`, or the first of name_2, name_3 … that exists below root/date on none of the roots. All destinations of a job
// thus share one name, and a second offload of a like-named card never mixes into the first.
std::string uniqueCardFolder(const std::vector<std::string>& roots, const std::string& date, const std::string& name);

std::string cardPath(const std::string& root, const std::string& date, const std::string& cardName);
std::vector<std::string> cardPaths(const std::vector<std::string>& roots, const std::string& date,
                                   const std::string& cardName);

// The form in which two folders are compared: links resolved as far as the path exists, ".", ".." and doubled or
// trailing "/" gone, lower case. Only for comparing, never for opening.
std::string normalizedRoot(const std::string& path);

} // namespace Layout

} // namespace velmora
