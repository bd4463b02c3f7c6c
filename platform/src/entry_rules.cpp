#include "entry_rules.h"

#include <archive_entry.h>

namespace vesk::platform::archive {
namespace {

NameParts Split(const std::string& text) {
  NameParts parts;
  size_t start = 0;
  while (start <= text.size()) {
    size_t end = text.find('/', start);
    if (end == std::string::npos)
      end = text.size();
    std::string part = text.substr(start, end - start);
    if (!part.empty() && part != ".")
      parts.push_back(std::move(part));
    start = end + 1;
  }
  return parts;
}

}  // namespace

Status SplitEntryName(const char* name, NameParts* parts) {
  if (name == nullptr)
    return Fail(VESKARCHIVE_E_BAD_NAME, "an entry without a readable name");
  const std::string text(name);
  if (!text.empty() && text[0] == '/')
    return Fail(VESKARCHIVE_E_ABSOLUTE_PATH, text);
  *parts = Split(text);
  for (const auto& part : *parts) {
    if (part == "..")
      return Fail(VESKARCHIVE_E_DOTDOT, text);
  }
  return {};
}

std::string JoinName(const NameParts& parts, size_t count) {
  std::string name;
  for (size_t i = 0; i < parts.size() && i < count; ++i) {
    if (i > 0)
      name += '/';
    name += parts[i];
  }
  return name;
}

Status CheckEntryKind(struct archive_entry* entry) {
  const char* raw = archive_entry_pathname(entry);
  const std::string name = raw != nullptr ? raw : "";
  if (archive_entry_hardlink(entry) != nullptr)
    return Fail(VESKARCHIVE_E_HARDLINK, name);
  switch (archive_entry_filetype(entry)) {
    case AE_IFREG:
    case AE_IFDIR:
    case AE_IFLNK:
      return {};
    case AE_IFCHR:
    case AE_IFBLK:
      return Fail(VESKARCHIVE_E_DEVICE, name);
    case AE_IFIFO:
      return Fail(VESKARCHIVE_E_FIFO, name);
    default:
      return Fail(VESKARCHIVE_E_SPECIAL, name);
  }
}

Status CheckLinkTarget(const NameParts& link, const char* target, const IsLinkFn& is_link) {
  const std::string where = JoinName(link) + " -> " + (target != nullptr ? target : "");
  if (target == nullptr || *target == '\0')
    return Fail(VESKARCHIVE_E_LINK_OUTSIDE, where + "(empty)");
  if (target[0] == '/')
    return Fail(VESKARCHIVE_E_LINK_OUTSIDE, where);
  // Resolve from the link's own directory, one component at a time.
  NameParts at(link.begin(), link.end() - (link.empty() ? 0 : 1));
  for (const auto& part : Split(target)) {
    if (part == "..") {
      if (at.empty())
        return Fail(VESKARCHIVE_E_LINK_OUTSIDE, where);
      at.pop_back();
      continue;
    }
    at.push_back(part);
    // A link met on the way may point anywhere, and ".." after it would then
    // climb from its real place, not from its name: refuse chains outright.
    if (is_link(JoinName(at)))
      return Fail(VESKARCHIVE_E_LINK_OUTSIDE, where + " (through another link)");
  }
  return {};
}

Status CheckNotBelowLink(const NameParts& parts, const IsLinkFn& is_link) {
  for (size_t n = 1; n < parts.size(); ++n) {
    if (is_link(JoinName(parts, n)))
      return Fail(VESKARCHIVE_E_THROUGH_LINK,
                  JoinName(parts) + " (below " + JoinName(parts, n) + ")");
  }
  return {};
}

}  // namespace vesk::platform::archive
