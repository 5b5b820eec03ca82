#include "kestro/export/curl.h"

#include <algorithm>
#include <cctype>

#include "kestro/export/internal/exchange_body.h"

namespace kestro {

namespace {

using exporting::internal::BodyForm;

std::string lowered(std::string_view text) {
    std::string out(text);
    std::transform(out.begin(), out.end(), out.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return out;
}

// The bytes as a printf format that prints exactly them: printable ASCII as it is (with the
// format's own % and \ doubled), every other byte as a three-digit octal escape. Single-quoted.
std::string printfFormat(std::string_view bytes) {
    std::string out;
    out.reserve(bytes.size() * 2);
    for (const char ch : bytes) {
        const auto c = static_cast<unsigned char>(ch);
        if (c == '%') {
            out += "%%";
        } else if (c == '\\') {
            out += "\\\\";
        } else if (c >= 0x20 && c < 0x7F) {
            out += ch;
        } else {
            out += '\\';
            out += static_cast<char>('0' + ((c >> 6) & 7));
            out += static_cast<char>('0' + ((c >> 3) & 7));
            out += static_cast<char>('0' + (c & 7));
        }
    }
    return shellQuote(out);
}

}  // namespace

std::string shellQuote(std::string_view text) {
    std::string out = "'";
    for (const char c : text) {
        if (c == '\'')
            out += "'\\''";
        else
            out += c;
    }
    out += '\'';
    return out;
}

std::string curlCommand(const RequestTypeRequest& exchange) {
    static const RequestTypeRequestDetailsRequest kNone;
    const RequestTypeRequestDetailsRequest& request =
        exchange.details.request ? *exchange.details.request : kNone;
    const std::string method = request.method.empty() ? "GET" : request.method;
    const BodyForm form = exporting::internal::requestBody(request);
    // A body that cannot stand in a shell word (bytes, or text holding NUL) goes through stdin.
    const std::optional<std::string> bytes = exporting::internal::bodyBytes(form);
    const bool hasBody = bytes && !bytes->empty();
    const bool throughStdin = hasBody && (form.base64 || bytes->find('\0') != std::string::npos);

    std::string first;
    if (throughStdin) first = "printf " + printfFormat(*bytes) + " | ";
    first += "curl";
    // HEAD goes as --head: with -X HEAD curl would wait for a body that never comes.
    if (method == "HEAD" && !hasBody)
        first += " --head";
    else if (method != "GET" || hasBody)
        first += " -X " + shellQuote(method);
    first += " " + shellQuote(request.url);

    std::string command = first;
    const auto line = [&command](const std::string& part) { command += " \\\n  " + part; };
    bool hasContentType = false;
    for (const auto& [name, value] : request.headers) {
        const std::string lower = lowered(name);
        if (lower == "content-length") continue;
        if (lower == "content-type") hasContentType = true;
        // "Name:" alone would remove the header from curl's request; "Name;" sends it empty.
        line("-H " + shellQuote(value.empty() ? name + ";" : name + ": " + value));
    }
    if (hasBody) {
        // Without a Content-Type of its own, curl would add a form type the request never had.
        if (!hasContentType) line("-H " + shellQuote("Content-Type:"));
        line(throughStdin ? std::string("--data-binary @-") : "--data-raw " + shellQuote(*bytes));
    }
    return command;
}

}  // namespace kestro
