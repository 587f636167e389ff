#include "Json.hpp"

#include "../Output.hpp"

#include <cstdio>

namespace top {
namespace {

using zel::tools::json_text;

// Members of objects and elements of arrays, with what has to stand between them.
class Json {
public:
    void open(const char* name, char bracket) {
        key(name);
        text_ += bracket;
        first_ = true;
    }
    void close(char bracket) {
        text_ += bracket;
        first_ = false;
    }
    void member(const char* name, long long value) { put(name, std::to_string(value)); }
    void member(const char* name, const std::string& value) { put(name, json_text(value)); }
    void put(const char* name, const std::string& literal) {
        key(name);
        text_ += literal;
    }
    std::string take() { return std::move(text_); }

private:
    void key(const char* name) {
        text_ += first_ ? "" : ", ";
        first_ = false;
        if (*name != '\0')
            text_ += json_text(name) + ": ";
    }

    std::string text_;
    bool first_ = true;
};

constexpr const char* element = ""; // of an array: it has no name

void add_kernel(Json& json, const zel_statistics& now) {
    json.open("tick", '{');
    json.member("period_ns", now.tick_period_ns);
    json.member("ticks", now.ticks);
    json.member("missed", now.ticks_missed);
    json.member("lateness_last_ns", now.lateness_last_ns);
    json.member("lateness_max_ns", now.lateness_max_ns);
    json.open("lateness_classes", '[');
    for (const uint32_t count : now.lateness)
        json.member(element, count);
    json.close(']');
    json.close('}');
    json.open("calls", '{');
    json.member("run", now.calls_run);
    json.member("dropped", now.calls_dropped);
    json.member("last_pass", now.calls_last_pass);
    json.member("high_water", now.calls_high_water);
    json.close('}');
}

void add_interrupts(Json& json, const zel_statistics& now) {
    json.open("vectors", '[');
    for (const zel_statistics_vector& each : now.vectors) {
        if (each.used == 0)
            break;
        json.open(element, '{');
        json.member("vector", each.vector);
        json.member("interrupts", each.interrupts);
        json.close('}');
    }
    json.close(']');
    json.member("interrupts_of_other_vectors", now.interrupts_of_other_vectors);
}

void add_devices(Json& json, const zel_statistics& now) {
    json.open("devices", '[');
    for (const zel_statistics_device& each : now.devices) {
        if (!is_used(each))
            continue;
        json.open(element, '{');
        json.member("device", device_name(each));
        json.member("received_packets", each.received_packets);
        json.member("received_bytes", each.received_bytes);
        json.member("dropped_packets", each.dropped_packets);
        json.member("sent_packets", each.sent_packets);
        json.member("sent_bytes", each.sent_bytes);
        json.close('}');
    }
    json.close(']');
}

void add_threads(Json& json, const Look& now) {
    json.open("threads", '[');
    for (const Thread& each : now.threads) {
        json.open(element, '{');
        json.member("id", each.id);
        json.member("name", each.name);
        json.member("policy", policy_name(each.policy));
        json.member("linux_priority", each.priority);
        if (is_real_time(each))
            json.member("application_priority", application_priority(each, now.statistics));
        json.member("processor", each.processor);
        json.member("allowed", each.allowed);
        json.close('}');
    }
    json.close(']');
}

} // namespace

std::string to_json(pid_t pid, const Look& now) {
    char seconds[32];
    std::snprintf(seconds, sizeof seconds, "%.6f", now.seconds);
    Json json;
    json.open(element, '{');
    json.member("process", pid);
    json.put("seconds", seconds);
    add_kernel(json, now.statistics);
    add_interrupts(json, now.statistics);
    add_devices(json, now.statistics);
    add_threads(json, now);
    json.close('}');
    return json.take() + '\n';
}

} // namespace top
