// What a request's parameters cost: url-encoded forms of many distinct fields parsed into a
// fresh request, as a processor thread does with a form body, and every field then read back
// by name, as a servlet would.
//
// The connector lifts its parameter cap for the run, so that the figures show the parsing and
// the look-ups rather than the 400 a capped connector answers early.
#include <stdio.h>
#include <stdlib.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <vector>

#include <vesk/Arena.h>
#include <vesk/HttpConnector.h>
#include <vesk/HttpLexer.h>
#include <vesk/HttpRequest.h>

namespace {

using Clock = std::chrono::steady_clock;

double millis(Clock::duration d) {
        return std::chrono::duration<double, std::milli>(d).count();
}

// "f0=v&f1=v&..." with fields distinct names.
std::string form(int fields, const std::string& value) {
        std::string text;
        for (int i = 0; i < fields; i++)
                text += (i ? "&f" : "f") + std::to_string(i) + "=" + value;
        return text;
}

struct Figures {
        double parse, lookUp;
};

Figures run(HttpConnector_T connector, const std::string& text, int fields) {
        Arena_T arena = Arena_new();
        HttpRequest_T request = HttpRequest_new(arena);
        HttpRequest_setConnector(request, connector);
        std::vector<char> buffer(text.begin(), text.end());
        buffer.push_back(0);
        Clock::time_point start = Clock::now();
        if (HttpLexer_parseUrlencoded(request, buffer.data(), static_cast<int>(text.size())) != 0)
                fprintf(stderr, "the form was cut at the parameter cap\n");
        Clock::time_point parsed = Clock::now();
        int found = 0;
        for (int i = 0; i < fields; i++)
                found += HttpRequest_getParameter(request, "f%d", i) != nullptr;
        Clock::time_point read = Clock::now();
        if (found != fields)
                fprintf(stderr, "found %d of %d fields\n", found, fields);
        Arena_dispose(&arena);
        return {millis(parsed - start), millis(read - parsed)};
}

}  // namespace

int main(int argc, char** argv) {
        int rounds = argc > 1 ? atoi(argv[1]) : 3;
        HttpConnector_T connector = HttpConnector_new();
        HttpConnector_setMaxParameterCount(connector, -1);
        struct Case {
                const char* name;
                std::string text;
                int fields;
        };
        std::vector<Case> cases;
        for (int fields : {100, 1000, 10000, 40000})
                cases.push_back({"fields", form(fields, "v"), fields});
        // A 1 MiB form of short fields, the most fields a body of that size holds in practice.
        int fields = 0;
        std::string big;
        for (; big.size() < (1u << 20); fields++)
                big += (fields ? "&f" : "f") + std::to_string(fields) + "=v";
        cases.push_back({"1 MiB form", big, fields});
        printf("%-12s %8s %10s %12s %12s\n", "form", "fields", "bytes", "parse ms", "look-up ms");
        for (const Case& c : cases) {
                Figures least = {1e18, 1e18};
                for (int r = 0; r < rounds; r++) {
                        Figures f = run(connector, c.text, c.fields);
                        least.parse = std::min(least.parse, f.parse);
                        least.lookUp = std::min(least.lookUp, f.lookUp);
                }
                printf("%-12s %8d %10zu %12.2f %12.2f\n", c.name, c.fields, c.text.size(),
                       least.parse, least.lookUp);
        }
        HttpConnector_free(&connector);
        return 0;
}
