#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include <vesk/InputStream.h>
#include <vesk/Mem.h>
#include <vesk/XMLLexer.h>
#include <vesk/XMLParser.h>
#include <vesk/assert.h>

#include "support/Support.hpp"

namespace {

// Everything the handlers saw, as one line per event.
struct Recorder {
        std::vector<std::string> events;
        std::vector<std::string> errors;
        std::vector<int> lines;  // the parser's line at each startElement
        XMLParser_T parser = nullptr;
        bool ok = false;
        std::string log;  // what the lexer wrote to the error log
};

void onStartDocument(void* ctx) {
        static_cast<Recorder*>(ctx)->events.push_back("startDocument");
}

void onEndDocument(void* ctx) {
        static_cast<Recorder*>(ctx)->events.push_back("endDocument");
}

void onStartElement(const char* name, const char** attributes, const char* cdata, void* ctx) {
        auto r = static_cast<Recorder*>(ctx);
        std::string e = std::string("<") + name;
        for (int i = 0; attributes[i]; i += 2)
                e += std::string(" ") + attributes[i] + "=[" + attributes[i + 1] + "]";
        e += ">";
        if (cdata)
                e += std::string("{") + cdata + "}";
        r->events.push_back(e);
        r->lines.push_back(XMLParser_getCurrentLine(r->parser));
}

void onEndElement(const char* name, void* ctx) {
        static_cast<Recorder*>(ctx)->events.push_back(std::string("</") + name + ">");
}

void onError(const char* message, void* ctx) {
        static_cast<Recorder*>(ctx)->errors.push_back(message);
}

void setAll(XMLParser_T P) {
        XMLParser_setStartDocumentHandler(P, onStartDocument);
        XMLParser_setEndDocumentHandler(P, onEndDocument);
        XMLParser_setStartElementHandler(P, onStartElement);
        XMLParser_setEndElementHandler(P, onEndElement);
        XMLParser_setErrorHandler(P, onError);
}

// A stream whose bytes are text, read through a descriptor like a file.
class TextStream {
public:
        explicit TextStream(const std::string& text) {
                fd_ = memfd_create("xml", 0);
                if (write(fd_, text.data(), text.size()) != static_cast<ssize_t>(text.size()))
                        ADD_FAILURE() << "short write";
                lseek(fd_, 0, SEEK_SET);
                stream_ = InputStream_new(fd_);
        }
        ~TextStream() {
                InputStream_free(&stream_);
                close(fd_);
        }
        TextStream(const TextStream&) = delete;
        TextStream& operator=(const TextStream&) = delete;
        InputStream_T get() const { return stream_; }

private:
        int fd_;
        InputStream_T stream_;
};

Recorder parseWith(XMLParser_T P, Recorder& r) {
        r.parser = P;
        setAll(P);
        testing::internal::CaptureStderr();
        r.ok = XMLParser_parse(P);
        r.log = testing::internal::GetCapturedStderr();
        XMLParser_free(&P);
        r.parser = nullptr;
        return r;
}

Recorder parseText(const std::string& xml) {
        Recorder r;
        return parseWith(XMLParser_createFromBuffer(xml.c_str(), &r), r);
}

Recorder parseStream(const std::string& xml) {
        Recorder r;
        TextStream s(xml);
        return parseWith(XMLParser_createFromStream(s.get(), &r), r);
}

using Events = std::vector<std::string>;

}  // namespace

TEST(XMLParser, ElementsAttributesAndText) {
        struct Case {
                std::string xml;
                Events events;  // between startDocument and endDocument
        };
        const Case cases[] = {
            {"", {}},
            {"<a b=\"1\" c='2'/>", {"<a b=[1] c=[2]>", "</a>"}},
            {"<a>  text  </a>", {"<a>{text}", "</a>"}},
            {"<a><![CDATA[ x ]]></a><b><![cdata[<i>&amp;</i>]]></b>",
             {"<a>{x}", "</a>", "<b>{<i>&amp;</i>}", "</b>"}},
            // An empty CDATA section gives no text.
            {"<a><![CDATA[]]></a>", {"<a>", "</a>"}},
            // Text stands only behind a start tag, and may be followed by children there.
            {"<a>one\n two<b/><c x = \" y z \" >\t</c></a>",
             {"<a>{one\n two}", "<b>", "</b>", "<c x=[y z]>", "</c>", "</a>"}},
            // End tags are not matched against start tags.
            {"<a></b>", {"<a>", "</b>"}},
            // Several top-level elements, and entities left as written.
            {"<a x='&lt;'/> <b>&amp;</b>", {"<a x=[&lt;]>", "</a>", "<b>{&amp;}", "</b>"}},
            // A bare value stops at the slash; quotes and white space are taken off the value.
            {"<a x=1/><b k\t= v y=\"a'b\" z='a\"b' e=\"\">x</b>",
             {"<a x=[1]>", "</a>", "<b k=[v] y=[a'b] z=[a\"b] e=[]>{x}", "</b>"}},
            // Quoted values may hold markup bytes.
            {"<a href=\"/x>y</z>\"/>", {"<a href=[/x>y</z>]>", "</a>"}},
            // Comments, directives and the document type are skipped, before text too.
            {"<?xml version=\"1.0\"?>\n<!DOCTYPE w PUBLIC \"-//x//DTD W 2.3//EN\" \"http://x/y.dtd\">\n"
             "<!-- <tags> and -- dashes --><w><!-- in --><x/><?pi ?></w>",
             {"<w>", "<x>", "</x>", "</w>"}},
            {"<a> <!-- c --> </a>", {"<a>", "</a>"}},
        };
        for (const Case& c : cases) {
                Recorder r = parseText(c.xml);
                EXPECT_TRUE(r.ok) << c.xml;
                Events events{"startDocument"};
                events.insert(events.end(), c.events.begin(), c.events.end());
                events.push_back("endDocument");
                EXPECT_EQ(r.events, events) << c.xml;
                EXPECT_TRUE(r.errors.empty()) << c.xml;
        }
        // No tab or line end in a quoted value.
        Recorder r = parseText("<a v=\"x\ty\"/>");
        EXPECT_FALSE(r.ok);
        EXPECT_EQ(r.errors, (Events{"Parse error at line [0] near \"eof\" -- syntax error, "
                                    "unexpected $undefined, expecting VALUE"}));

        const char* attributes[] = {"Name", "one", "other", "two", nullptr};
        EXPECT_STREQ(XMLParser_getAttribute("name", attributes), "one");
        EXPECT_STREQ(XMLParser_getAttribute("OTHER", attributes), "two");
        EXPECT_EQ(XMLParser_getAttribute("one", attributes), nullptr);
        EXPECT_EQ(XMLParser_getAttribute("name", nullptr), nullptr);
}

namespace {

std::string tagWith(int attributes) {
        std::string xml = "<a";
        for (int i = 0; i < attributes; i++)
                xml += " k" + std::to_string(i) + "=\"v" + std::to_string(i) + "\"";
        return xml + "/>";
}

}  // namespace

TEST(XMLParser, AttributeLimit) {
        Recorder r = parseText(tagWith(127));
        EXPECT_TRUE(r.ok);
        ASSERT_EQ(r.events.size(), 4u);
        EXPECT_NE(r.events[1].find(" k126=[v126]>"), std::string::npos);

        // The table counts names and values, so the 128th attribute overflows it.
        std::string xml = tagWith(128);
        Recorder q;
        XMLParser_T P = XMLParser_createFromBuffer(xml.c_str(), &q);
        setAll(P);
        EXPECT_EQ(raised([&] { XMLParser_parse(P); }),
                  "AssertException: XMLParser: Element attribute table size exceeded. The maximum "
                  "number of attributes in a <tag> is 256");
        XMLParser_free(&P);

        // The table is emptied after each element, so the limit is per element.
        r = parseText("<r>" + tagWith(100) + tagWith(100) + "</r>");
        EXPECT_TRUE(r.ok);
}

TEST(XMLParser, SyntaxErrors) {
        struct Case {
                const char* xml;
                const char* message;
                Events events;
        };
        const Case cases[] = {
            {"<a><b/>text</a>", "unexpected NAME, expecting CLOSE_TAG", {"<a>", "<b>", "</b>"}},
            {"<a></a>text", "unexpected STRING, expecting $end", {"<a>", "</a>"}},
            {"<a/>text", "unexpected NAME, expecting $end", {"<a>", "</a>"}},
            {"<a>", "unexpected $end, expecting CLOSE_TAG", {"<a>"}},
            {"<a", "unexpected $end, expecting END_TAG or KEY or '>'", {}},
            {"<a b>", "unexpected NAME, expecting END_TAG or KEY or '>'", {}},
            {"<", "unexpected $end, expecting NAME", {}},
            {"<a=\"1\">", "unexpected KEY, expecting NAME", {}},
            {"<a b=>", "unexpected $undefined, expecting VALUE", {}},
            {"<a b=\"1>", "unexpected $undefined, expecting VALUE", {}},
            {"</a>", "unexpected CLOSE_TAG, expecting $end", {}},
            {"<a></>", "unexpected '>', expecting NAME", {"<a>"}},
            {"<a></a", "unexpected $end, expecting '>'", {"<a>"}},
            {"<a></a b>", "unexpected NAME, expecting '>'", {"<a>"}},
            {"<a>x</a>>", "unexpected STRING, expecting $end", {"<a>{x}", "</a>"}},
            {"<a/>>", "unexpected '>', expecting $end", {"<a>", "</a>"}},
            {"<a / >", "unexpected $undefined, expecting END_TAG or KEY or '>'", {}},
            {"\"", "unexpected $undefined, expecting $end", {}},
        };
        for (const Case& c : cases) {
                Recorder r = parseText(c.xml);
                EXPECT_FALSE(r.ok) << c.xml;
                Events events{"startDocument"};
                events.insert(events.end(), c.events.begin(), c.events.end());
                events.push_back("endDocument");
                EXPECT_EQ(r.events, events) << c.xml;
                EXPECT_EQ(r.errors, (Events{std::string("Parse error at line [0] near \"eof\" -- "
                                                        "syntax error, ") +
                                            c.message}))
                    << c.xml;
        }
}

TEST(XMLParser, ErrorLinesAndContext) {
        // The same text from a stream counts lines from 1 and shows where it went wrong.
        Recorder r = parseStream("<a><b/>text</a>");
        EXPECT_EQ(r.errors, (Events{"Parse error at line [1] near \"text</a>\n\" -- syntax error, "
                                    "unexpected NAME, expecting CLOSE_TAG"}));
        r = parseText("<a><b/>text</a>");
        EXPECT_EQ(r.errors, (Events{"Parse error at line [0] near \"eof\" -- syntax error, "
                                    "unexpected NAME, expecting CLOSE_TAG"}));

        // A context longer than 29 bytes is cut and marked.
        r = parseStream("<a\n\nb>0123456789012345678901234567890123456789</a>");
        EXPECT_EQ(r.errors,
                  (Events{"Parse error at line [3] near \"b>012345678901234567890123456...\" "
                          "-- syntax error, unexpected NAME, expecting END_TAG or KEY or "
                          "'>'"}));

        // At the end of a stream the buffer is gone.
        r = parseStream("<a>\n<b>\n</a>");
        EXPECT_EQ(r.errors, (Events{"Parse error at line [3] near \"eof\" -- syntax error, "
                                    "unexpected $end, expecting CLOSE_TAG"}));
        r = parseText("<a>\n<b>\n</a>");
        EXPECT_EQ(r.errors, (Events{"Parse error at line [2] near \"eof\" -- syntax error, "
                                    "unexpected $end, expecting CLOSE_TAG"}));

        // Lines inside comments, CDATA sections, text and directives are counted.
        r = parseStream("<?xml\n?>\n<!--\n\n-->\n<a><![CDATA[\n]]></a>\n<b>x\ny\n</b>\n<c d>");
        EXPECT_EQ(r.errors, (Events{"Parse error at line [11] near \"d>\n\" -- syntax error, "
                                    "unexpected NAME, expecting END_TAG or KEY or '>'"}));

        // A handler sees the line the lexer has reached: one token ahead behind '>'.
        r = parseStream("<a>\n<b/>\n<c\n/>\n</a>");
        EXPECT_TRUE(r.ok);
        EXPECT_EQ(r.lines, (std::vector<int>{2, 2, 4}));
}

TEST(XMLParser, NestingErrors) {
        struct Case {
                const char* xml;
                const char* log;
                const char* context;
        };
        const Case cases[] = {
            {"<!-- a <!-- b --> -->", "Error: Nested xml comment not allowed at line: %d\n",
             "<!-- b --> -->\n"},
            {"<?a\n<?b ?> ?>", "Error: Nested directive not allowed at line: %d\n", "<?b ?> ?>\n"},
            {"<!DOCTYPE a [\n<!ENTITY x \"y\">]>", "Error: Nested DTD not allowed at line: %d\n",
             "<!ENTITY x \"y\">]>\n"},
            {"<a/><!-- open", "Error: Unterminated xml comment at line: %d\n", "eof"},
            {"<? open", "Error: Unterminated directive at line: %d\n", "eof"},
            {"<!DOCTYPE", "Error: Unterminated DTD at line: %d\n", "eof"},
        };
        for (const Case& c : cases) {
                std::string xml = c.xml;
                int line = xml.find('\n') == std::string::npos ? 0 : 1;
                char log[100];
                Recorder r = parseText(xml);
                EXPECT_FALSE(r.ok) << xml;
                snprintf(log, sizeof log, c.log, line);
                EXPECT_EQ(r.log, log);
                std::string expected = "syntax error, unexpected $undefined, expecting $end";
                EXPECT_EQ(r.errors, (Events{"Parse error at line [" + std::to_string(line) +
                                            "] near \"eof\" -- " + expected}));
                r = parseStream(xml);
                snprintf(log, sizeof log, c.log, line + 1);
                EXPECT_EQ(r.log, log);
                EXPECT_EQ(r.errors, (Events{"Parse error at line [" + std::to_string(line + 1) +
                                            "] near \"" + c.context + "\" -- " + expected}));
        }

        // An open CDATA section is reported where it starts.
        Recorder r = parseText("<a>\n<![CDATA[ x\n");
        EXPECT_EQ(r.log, "Error: Unterminated CDATA section at line: 1\n");
        EXPECT_EQ(r.errors, (Events{"Parse error at line [2] near \"eof\" -- syntax error, "
                                    "unexpected $undefined, expecting CLOSE_TAG"}));

        // A NUL byte in a stream is no end of the document.
        r = parseStream(std::string("<a/>\0<b/>", 9));
        EXPECT_FALSE(r.ok);
        EXPECT_EQ(r.errors.size(), 1u);
}

TEST(XMLParser, DeepNestingExhaustsTheStack) {
        std::string deep;
        for (int i = 0; i < 9990; i++)
                deep += "<a>";
        for (int i = 0; i < 9990; i++)
                deep += "</a>";
        Recorder r = parseText(deep);
        EXPECT_TRUE(r.ok);
        EXPECT_EQ(r.events.size(), 2u + 2 * 9990);

        deep = "";
        for (int i = 0; i < 10000; i++)
                deep += "<a>";
        r = parseText(deep);
        EXPECT_FALSE(r.ok);
        EXPECT_EQ(r.errors, (Events{"Parse error at line [0] near \"eof\" -- memory exhausted"}));
}

namespace {

// Text of every kind of token, attribute and skipped construct, for the split tests.
const char* kBody =
    "<?xml version=\"1.0\"?><!DOCTYPE x SYSTEM \"x.dtd\"><!-- comment -->\n"
    "<server port=\"8080\" name = 'main' bare=value>\r\n"
    "  <host name=\"localhost\" appBase=\"webapps\"/>\n"
    "  <note><![CDATA[ <not> a tag ]]></note>\n"
    "  <text>some words\nover lines</text>\n"
    "</server>\n";

Events bodyEvents() {
        return {"startDocument",
                "<server port=[8080] name=[main] bare=[value]>",
                "<host name=[localhost] appBase=[webapps]>",
                "</host>",
                "<note>{<not> a tag}",
                "</note>",
                "<text>{some words\nover lines}",
                "</text>",
                "</server>",
                "endDocument"};
}

}  // namespace

TEST(XMLParser, StreamingAcrossBufferBoundaries) {
        // Every byte of the body falls on the first refill boundary once.
        const int body = static_cast<int>(strlen(kBody));
        for (int pad = 2048 - body; pad <= 2048; pad++) {
                std::string xml = std::string(static_cast<size_t>(pad), ' ') + kBody;
                Recorder r = parseStream(xml);
                ASSERT_TRUE(r.ok) << pad;
                ASSERT_EQ(r.events, bodyEvents()) << pad;
        }

        // A document much larger than the buffer, with tokens larger than the buffer.
        std::string big = "<r>";
        std::string value(5000, 'v'), text(9000, 't'), name(3000, 'n');
        for (int i = 0; i < 50; i++)
                big += std::string("<e i=\"") + std::to_string(i) + "\">x</e>\n";
        big += "<!--" + std::string(7000, '-') + " -->";
        big += "<" + name + " k=\"" + value + "\">" + text + "</" + name + ">";
        big += "<c><![CDATA[" + text + "]]></c></r>";
        for (bool stream : {true, false}) {
                Recorder r = stream ? parseStream(big) : parseText(big);
                ASSERT_TRUE(r.ok);
                ASSERT_EQ(r.events.size(), 2u + 2 + 100 + 4);
                EXPECT_EQ(r.events[100], "<e i=[49]>{x}");
                EXPECT_EQ(r.events[102], "<" + name + " k=[" + value + "]>{" + text + "}");
                EXPECT_EQ(r.events[103], "</" + name + ">");
                EXPECT_EQ(r.events[104], "<c>{" + text + "}");
        }
}

namespace {

void raising(const char*, const char**, const char*, void*) {
        THROW(IOException, "stop");
}

}  // namespace

TEST(XMLParser, HandlersAndChecks) {
        // Without handlers only the result tells.
        XMLParser_T P = XMLParser_createFromBuffer("<a x='1'><b y='2'/></a>", nullptr);
        EXPECT_TRUE(XMLParser_parse(P));
        XMLParser_free(&P);
        P = XMLParser_createFromBuffer("<a x='1'>", nullptr);
        EXPECT_FALSE(XMLParser_parse(P));
        XMLParser_free(&P);

        // A handler's exception passes through; nothing is left behind.
        P = XMLParser_createFromBuffer("<a x='1'><b y='2'/></a>", nullptr);
        XMLParser_setStartElementHandler(P, raising);
        EXPECT_EQ(raised([&] { XMLParser_parse(P); }), "IOException: stop");
        XMLParser_free(&P);

}

TEST(XMLLexer, Tokens) {
        XMLLexer_T L = XMLLexer_create("<a k =\"v\" n=x/>< /a >\n <b>  t  </b><c =>");
        struct Token {
                int code;
                const char* value;
        };
        const Token expected[] = {
            {'<', nullptr},       {NAME, "a"},        {KEY, "k"},     {VALUE, "v"},   {KEY, "n"},
            {VALUE, "x"},         {END_TAG, nullptr}, {'<', nullptr}, {'/', nullptr}, {NAME, "a"},
            {'>', nullptr},       {'<', nullptr},     {NAME, "b"},    {'>', nullptr}, {STRING, "t"},
            {CLOSE_TAG, nullptr}, {NAME, "b"},        {'>', nullptr}, {'<', nullptr}, {KEY, "c"},
            {'=', nullptr},       {'>', nullptr},     {0, nullptr},   {0, nullptr}};
        for (const Token& t : expected) {
                int code = XMLLexer_nextToken(L);
                EXPECT_EQ(code, t.code);
                char* value = XMLLexer_currentToken(L);
                if (t.value)
                        EXPECT_STREQ(value, t.value);
                else
                        EXPECT_EQ(value, nullptr);
                if (code == NAME || code == KEY || code == VALUE)
                        FREE(value);
        }
        EXPECT_EQ(XMLLexer_getLine(L), 1);
        EXPECT_STREQ(XMLLexer_getErrorContext(L), "eof");
        XMLLexer_free(&L);
}
