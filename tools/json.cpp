#include "json.h"

#include <algorithm>
#include <optional>

#include <nlohmann/json.hpp>

#include "edition.h"
#include "text.h"

namespace {

using Json = nlohmann::ordered_json;

std::string fromLatin1(const std::string& text) {
    std::string result;
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte < 0x80) {
            result += c;
        } else {
            result += static_cast<char>(0xc0 | (byte >> 6));
            result += static_cast<char>(0x80 | (byte & 0x3f));
        }
    }
    return result;
}

std::string asUtf8(const std::string& text) { return isUtf8(text) ? text : fromLatin1(text); }

Json inMs(const std::optional<Duration>& duration) {
    return duration ? Json(milliseconds(*duration)) : Json(nullptr);
}

Json jsonOf(const Timing& timing) {
    Json json = Json::object();
    json["connect_ms"] = inMs(timing.connect);
    const bool isAnswer = timing.answer.has_value();
    if (edition::kIsStandard) {
        const auto& times = timing.connectTimes;
        json["name_ms"] = times ? inMs(times->name) : Json(nullptr);
        json["tcp_ms"] = times ? inMs(times->tcp) : Json(nullptr);
        json["tls_ms"] = times ? inMs(times->tls) : Json(nullptr);
        json["reused"] = !timing.connect || timing.joined;
    }
    json["first_byte_ms"] = isAnswer ? inMs(timing.answer->firstByte) : Json(nullptr);
    json["total_ms"] = isAnswer ? Json(milliseconds(timing.answer->total)) : Json(nullptr);
    json["bytes_per_second"] = isAnswer ? Json(timing.answer->bytesPerSecond()) : Json(nullptr);
    return json;
}

Json errorOf(const Outcome& outcome) {
    if (outcome.isAnswer()) return nullptr;
    return {{"kind", kindOf(outcome.code)},
            {"exit_code", outcome.code},
            {"message", asUtf8(outcome.message)}};
}

// Values of one name make an array.
void addHeader(Json& values, const std::string& value) {
    if (values.is_null()) {
        values = value;
    } else {
        if (values.is_string()) values = Json::array({values});
        values.push_back(value);
    }
}

void addBody(Json& json, const std::string& body, const Options& options) {
    if (!options.outputFile.empty()) {
        json["body_file"] = asUtf8(options.outputFile);
    } else if (isUtf8(body)) {
        json["body"] = body;
    } else {
        json["body_base64"] = base64(body);
    }
}

}  // namespace

std::string base64(const std::string& bytes) {
    constexpr const char* kDigits =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string result;
    result.reserve((bytes.size() + 2) / 3 * 4);
    for (size_t i = 0; i < bytes.size(); i += 3) {
        const size_t count = std::min<size_t>(3, bytes.size() - i);
        uint32_t group = 0;
        for (size_t k = 0; k < 3; ++k) {
            group = group << 8 | (k < count ? static_cast<unsigned char>(bytes[i + k]) : 0U);
        }
        for (size_t k = 0; k < 4; ++k) {
            result += k <= count ? kDigits[group >> (18 - 6 * k) & 0x3f] : '=';
        }
    }
    return result;
}

std::string jsonLine(uint64_t number, const Outcome& outcome, const std::string& body,
                     const Options& options) {
    Json json = Json::object();
    json["request"] = number;
    const int status = outcome.status.value_or(0);  // 0: there is one that cannot be read
    json["status"] = status != 0 ? Json(status) : Json(nullptr);
    json["headers"] = Json::object();
    for (const auto& [name, value] : outcome.headers) {
        if (name != ":status") addHeader(json["headers"][asUtf8(name)], asUtf8(value));
    }
    json["body_size"] = outcome.timing.answer ? outcome.timing.answer->bodySize : 0;
    addBody(json, body, options);
    json["timing"] = jsonOf(outcome.timing);
    json["error"] = errorOf(outcome);
    return json.dump() + "\n";
}
