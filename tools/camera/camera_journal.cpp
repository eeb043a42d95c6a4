#include "tools/camera/camera_journal.h"

#include <cerrno>
#include <cstring>

#include "tools/common/tool_error.h"

namespace kestrelbridge::tools {
namespace {

// The positions of the datagrams with this fault.
std::string Positions(std::span<const DatagramFate> fates, bool DatagramFate::*fault) {
  std::string text;
  for (std::size_t position = 0; position < fates.size(); ++position) {
    const DatagramFate& fate = fates[position];
    if (!(fate.*fault)) {
      continue;
    }
    text += (text.empty() ? "" : ",") + std::to_string(position);
    if (fault == &DatagramFate::corrupted) {
      text += "@" + std::to_string(fate.damaged_offset);
    }
  }
  return text.empty() ? "-" : text;
}

}  // namespace

CameraJournal::CameraJournal(const std::string& path) : file_(nullptr, &std::fclose) {
  if (path.empty()) {
    return;
  }
  file_.reset(std::fopen(path.c_str(), "we"));
  if (file_ == nullptr) {
    throw ToolError("cannot write the journal " + path + ": " + std::strerror(errno));
  }
  std::setvbuf(file_.get(), nullptr, _IOLBF, BUFSIZ);  // a test may read it while we run
  std::fputs("# unit clip_unit length datagrams lost duplicated reordered corrupted\n",
             file_.get());
}

void CameraJournal::Write(const SentUnit& sent) {
  if (file_ == nullptr) {
    return;
  }
  std::fprintf(file_.get(), "%llu %zu %zu %zu %s %s %s %s\n",
               static_cast<unsigned long long>(sent.unit), sent.clip_unit, sent.length,
               sent.fates.size(), Positions(sent.fates, &DatagramFate::lost).c_str(),
               Positions(sent.fates, &DatagramFate::duplicated).c_str(),
               Positions(sent.fates, &DatagramFate::reordered).c_str(),
               Positions(sent.fates, &DatagramFate::corrupted).c_str());
}

}  // namespace kestrelbridge::tools
