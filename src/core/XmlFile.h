// The exchange files' XML, shared by the zone and the content-rule files: pugixml stands in for
// the platform's XML document object, with the checks of a conforming parser it leaves out and
// the conversion between the file's encoding and the program's code page.
#pragma once

#include <cstddef>
#include <string>

#include <pugixml.hpp>

namespace qbrix::core {

// Files larger than this are refused as unreadable: an exchange file is a few kilobytes, and the
// limit keeps a hostile file from taking unbounded memory.
inline constexpr std::size_t kMaxXmlFileBytes = 16u * 1024u * 1024u;

// Elements nested deeper than this are refused: an exchange file nests four levels, and the
// limit keeps every walk over a loaded document short whatever the file holds.
inline constexpr int kMaxXmlDepth = 256;

// Loads the file with pugixml's `options`; false when it is refused: unreadable or too big, in
// an encoding other than UTF-8, UTF-16, UTF-32 (told by a byte-order mark or the first
// characters), ISO-8859-1, windows-1252 or US-ASCII (declared), holding bytes invalid in its
// encoding, not well-formed (a reference to an undefined entity or an invalid character, '<'
// in an attribute value, a duplicate attribute, no or two root elements, text outside the root,
// "]]>" in text), or nesting elements deeper than kMaxXmlDepth. `*why`, when given, is then set
// to what is wrong, worded to follow "the file" ("is not well-formed XML"). Names and texts of
// the loaded document are in the program's code page.
bool LoadXmlFile(const std::string& path, unsigned options, pugi::xml_document& document,
                 std::string* why = nullptr);

// Writes a document built with code-page texts, raw, as UTF-8 (XML's default, so no encoding
// declaration is needed); every code-page text comes back byte for byte. The document's texts
// are left converted.
bool SaveXmlFile(pugi::xml_document& document, const std::string& path);

// All text below the element, through comments, CDATA sections and child elements, as the
// document object's text of an element.
std::string XmlElementText(const pugi::xml_node& element);

// Text made of XML white space only (blank, tab, CR, LF), the empty text included.
bool IsXmlBlank(const char* text);

}  // namespace qbrix::core
