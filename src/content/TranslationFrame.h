// The fixed frame of a translation request: the SOAP text placed before and after the text to
// translate. The content processor sends the requests; this program only assembles the frame
// from the connector settings, once per protocol when the settings are loaded. Nothing in the
// frame is escaped: settings go in as they stand.
#pragma once

#include <string>
#include <string_view>

namespace qbrix::content {

// Namespace of the translation server's request elements. It belongs to the server in use;
// this is the default the frame is built with.
inline constexpr char kTranslationNamespaceUrn[] = "urn:korvel-soft:lec-translation";

// The option fragments, defaults of the connector values "Options_HTML" and "Options_EMail".
std::string HtmlOptionFragment();
std::string EMailOptionFragment();

std::string BuildRequestHead(std::string_view sourceLanguage, std::string_view targetLanguage,
                             std::string_view ticket, std::string_view optionFragment);
std::string BuildRequestTail();

}  // namespace qbrix::content
