#include "content/TranslationFrame.h"

namespace qbrix::content {

namespace {

std::string OptionFragment(bool html) {
    struct Option {
        const char* name;
        const char* value;
    };
    const Option options[] = {{"Origin", "q-brix"},
                              {"HTML", html ? "1" : "0"},
                              {"TransVersion", "0"},
                              {"CorrespondingWord", "0"},
                              {"SetCharSetForWebPageToUTF8", "1"}};
    std::string fragment = "<t:Options>";
    for (const Option& option : options) {
        fragment.append("<t:Option Name=\"")
            .append(option.name)
            .append("\">")
            .append(option.value)
            .append("</t:Option>");
    }
    fragment.append("</t:Options>");
    return fragment;
}

}  // namespace

std::string HtmlOptionFragment() {
    return OptionFragment(true);
}

std::string EMailOptionFragment() {
    return OptionFragment(false);
}

std::string BuildRequestHead(std::string_view sourceLanguage, std::string_view targetLanguage,
                             std::string_view ticket, std::string_view optionFragment) {
    std::string head =
        "<SOAP:Envelope xmlns:SOAP=\"http://schemas.xmlsoap.org/soap/envelope/\" "
        "SOAP:encodingStyle=\"http://schemas.xmlsoap.org/soap/encoding/\">"
        "<SOAP:Body xmlns:t='";
    head.append(kTranslationNamespaceUrn).append("'><Translate><t:sourceLang>");
    head.append(sourceLanguage).append("</t:sourceLang><t:targetLang>");
    head.append(targetLanguage).append("</t:targetLang><TicketValue>");
    head.append(ticket).append("</TicketValue>");
    head.append(optionFragment);
    head.append("<sourceText xml:space=\"preserve\">");
    return head;
}

std::string BuildRequestTail() {
    return "</sourceText></Translate></SOAP:Body></SOAP:Envelope>";
}

}  // namespace qbrix::content
