#include "WatchStatus.h"

#include <utility>

#include "JsonText.h"

namespace manifest {

namespace {

std::optional<Finding::State> stateOf(std::string const& name) {
    for (auto const state :
         {Finding::CHANGED, Finding::MISSING, Finding::UNREADABLE, Finding::NEW}) {
        if (name == stateName(state)) {
            return state;
        }
    }
    return std::nullopt;
}

std::string toJson(std::string const& path, Finding const& finding) {
    return R"({"file": )" + jsonString(path) + R"(, "state": ")" + stateName(finding.state) +
           R"(", "detail": )" + jsonString(finding.detail) + '}';
}

// Takes the values of an object one by one, and keeps in mind whether all were there.
class Fields {
public:
    explicit Fields(std::string_view json) : reader(json) {}

    void take(std::string_view characters) { isComplete = isComplete && reader.take(characters); }
    void key(char const* name) {
        std::optional<std::string> const found = isComplete ? reader.string() : std::nullopt;
        isComplete = found && *found == name;
        take(":");
    }
    std::string text(char const* name) {
        key(name);
        auto value = isComplete ? reader.string() : std::nullopt;
        isComplete = value.has_value();
        return std::move(value).value_or("");
    }
    std::uint64_t number(char const* name) {
        key(name);
        auto const value = isComplete ? reader.number() : std::nullopt;
        isComplete = value.has_value();
        return value.value_or(0);
    }

    JsonReader reader;
    bool isComplete = true;
};

using OnFinding = std::function<void(std::string const& path, Finding const& finding)>;

void readFinding(Fields& fields, OnFinding const& onFinding) {
    fields.take("{");
    std::string const path = fields.text("file");
    fields.take(",");
    auto const state = stateOf(fields.text("state"));
    fields.take(",");
    std::string const detail = fields.text("detail");
    fields.take("}");
    fields.isComplete = fields.isComplete && state && !path.empty();
    if (fields.isComplete) {
        onFinding(path, {*state, detail});
    }
}

}  // namespace

std::string toJson(WatchStatus const& status, Findings const& findings) {
    std::string result = "{\n";
    auto const add = [&result](char const* name, std::string const& value) {
        result += std::string("  \"") + name + "\": " + value + ",\n";
    };
    add("manifest", jsonString(status.manifest));
    add("round", std::to_string(status.round));
    add("started", jsonString(status.started));
    add("ended", jsonString(status.ended));
    add("files", std::to_string(status.files));
    add("well", std::to_string(status.well));
    add("nextFile", jsonString(status.nextFile));
    result += "  \"findings\": [";
    char const* separator = "\n    ";
    findings.forEach([&](std::string const& path, Finding const& finding) {
        result += separator + toJson(path, finding);
        separator = ",\n    ";
    });
    return result += "\n  ]\n}\n";
}

std::optional<WatchStatus> fromJson(std::string_view json, OnFinding const& onFinding) {
    WatchStatus status;
    Fields fields(json);
    fields.take("{");
    status.manifest = fields.text("manifest");
    fields.take(",");
    status.round = fields.number("round");
    fields.take(",");
    status.started = fields.text("started");
    fields.take(",");
    status.ended = fields.text("ended");
    fields.take(",");
    status.files = fields.number("files");
    fields.take(",");
    status.well = fields.number("well");
    fields.take(",");
    status.nextFile = fields.text("nextFile");
    fields.take(",");
    fields.key("findings");
    fields.take("[");
    if (!fields.isComplete) {
        return std::nullopt;
    }
    if (!fields.reader.take("]")) {
        do {
            readFinding(fields, onFinding);
        } while (fields.isComplete && fields.reader.take(","));
        fields.take("]");
    }
    fields.take("}");
    return fields.isComplete ? std::optional<WatchStatus>(status) : std::nullopt;
}

}  // namespace manifest
