// Reads a JSON array of network records on standard input and writes, as one JSON object, what
// the SDK's exporters make of them: {"har": the HAR document of them all, "curl": one command
// per record}. The browser tests hold the dashboard's exporters to the same output.

#include <boost/json.hpp>
#include <iostream>
#include <iterator>
#include <string>
#include <vector>

#include "kestro/export/curl.h"
#include "kestro/export/har.h"

int main() {
    const std::string input(std::istreambuf_iterator<char>(std::cin), {});
    boost::json::error_code ec;
    const boost::json::value records = boost::json::parse(input, ec);
    if (ec || !records.is_array()) {
        std::cerr << "export tool: expected a JSON array of network records\n";
        return 2;
    }
    std::vector<kestro::RequestTypeRequest> exchanges;
    boost::json::array curl;
    for (const auto& record : records.as_array()) {
        auto exchange = record.is_object() ? kestro::RequestTypeRequest::decode(record.as_object())
                                           : std::nullopt;
        if (!exchange) {
            std::cerr << "export tool: not a network record: " << boost::json::serialize(record)
                      << "\n";
            return 2;
        }
        curl.emplace_back(kestro::curlCommand(*exchange));
        exchanges.push_back(std::move(*exchange));
    }
    std::cout << boost::json::serialize(boost::json::object{
        {"har", boost::json::parse(kestro::harDocument(exchanges))}, {"curl", std::move(curl)}});
    return 0;
}
