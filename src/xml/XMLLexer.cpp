#include <ctype.h>
#include <limits.h>
#include <string.h>

#include <string_view>

#include <vesk/Error.h>
#include <vesk/Mem.h>
#include <vesk/Str.h>
#include <vesk/XMLLexer.h>
#include <vesk/assert.h>

namespace {

enum { kMarkup = 0, kCdata = 1 };

// Bytes read at a time, and the first room for text.
constexpr int kChunk = 2048;

constexpr unsigned char kNameByte = 1;  // part of a NAME or a bare value
constexpr unsigned char kBlank = 2;     // skipped in front of a value
constexpr unsigned char kQuotable = 4;  // may stand inside a quoted value

constexpr auto kClass = [] {
        struct {
                unsigned char c[256] = {};
        } t;
        for (int b = 0; b < 256; b++) {
                if (b > 32 && b != '/' && b != '<' && b != '=' && b != '>' && b != '"')
                        t.c[b] |= kNameByte;
                if (b >= 32)
                        t.c[b] |= kQuotable;
                if (b == ' ' || b == '\t' || b == '\r')
                        t.c[b] |= kBlank;
        }
        return t;
}();

inline bool is(int c, unsigned char cls) {
        return c >= 0 && (kClass.c[c] & cls);
}

// A construct that is skipped: what opens it, what closes it, and what is said when it
// nests or is left open.
struct Section {
        std::string_view open;
        std::string_view close;
        const char* nested;
        const char* unterminated;
};

constexpr Section kDirective = {"<?", "?>", "Error: Nested directive not allowed at line: %d\n",
                                "Error: Unterminated directive at line: %d\n"};
constexpr Section kComment = {"<!--", "-->", "Error: Nested xml comment not allowed at line: %d\n",
                              "Error: Unterminated xml comment at line: %d\n"};
constexpr Section kDTD = {"<!", ">", "Error: Nested DTD not allowed at line: %d\n",
                          "Error: Unterminated DTD at line: %d\n"};

}  // namespace

struct XMLLexer_S {
        int line;
        int isbuffer;
        char* value;
        union {
                InputStream_T stream;
                const char* xml;
        } source;
        int state;
        char* bot;
        const char* marker;
        const char* limit;
        char* top;
        const char* token;
        const char* eof;
        const char* cursor;
        const char* context;
        int cdatalen;
        int cdatasize;
        char* cdata;
        bool finished;  // the end was returned; the stream buffer is gone
};

namespace {

// Moves every position into the buffer by delta bytes.
void shift(XMLLexer_T L, long delta) {
        L->marker = L->marker ? L->marker + delta : nullptr;
        L->context = L->context ? L->context + delta : nullptr;
        L->token += delta;
        L->cursor += delta;
        L->limit += delta;
}

// Makes at least need more bytes readable behind limit, unless the input ends first.
// Everything from token on is kept, so a token is always whole in the buffer.
void doFill(XMLLexer_T L, long need) {
        if (L->isbuffer || L->eof)
                return;
        if (L->bot && L->token > L->bot) {
                long held = L->limit - L->token;
                memmove(L->bot, L->token, static_cast<size_t>(held));
                shift(L, -(L->token - L->bot));
        }
        long wanted = need > kChunk ? need : kChunk;
        if (L->top - L->limit < wanted) {
                long held = L->limit - L->bot;
                if (held + wanted + 1 > INT_MAX)
                        THROW(MemoryException, "XMLLexer: a token of more than %ld bytes", held);
                char* buffer = static_cast<char*>(CALLOC(1, static_cast<int>(held + wanted + 1)));
                if (held)
                        memcpy(buffer, L->bot, static_cast<size_t>(held));
                if (L->bot) {
                        shift(L, buffer - L->bot);
                } else {
                        L->token = L->cursor = L->limit = buffer;
                }
                FREE(L->bot);
                L->bot = buffer;
                L->top = buffer + held + wanted;
        }
        char* at = L->bot + (L->limit - L->bot);
        int n = InputStream_readBytes(L->source.stream, at, static_cast<int>(wanted));
        if (n < 0)
                n = 0;
        if (n < wanted) {
                // The sentinel keeps the buffer's text ending like a line for error contexts.
                at[n] = '\n';
                at[n + 1] = 0;
                L->eof = at + n + 1;
        } else {
                at[n] = 0;
        }
        L->limit = at + n;
}

// The byte i places ahead of the cursor, reading more if needed; -1 past the end.
inline int peek(XMLLexer_T L, long i) {
        if (!L->cursor || L->cursor + i >= L->limit) {
                doFill(L, L->cursor ? L->cursor + i + 1 - L->limit : i + 1);
                if (!L->cursor || L->cursor + i >= L->limit)
                        return -1;
        }
        return static_cast<unsigned char>(L->cursor[i]);
}

bool looksAt(XMLLexer_T L, std::string_view s) {
        for (size_t i = 0; i < s.size(); i++)
                if (peek(L, static_cast<long>(i)) != static_cast<unsigned char>(s[i]))
                        return false;
        return true;
}

// Ends the input: the stream buffer is released at once, as nothing more will be read.
int finish(XMLLexer_T L) {
        if (!L->isbuffer) {
                FREE(L->bot);
                L->top = nullptr;
                L->marker = L->context = L->token = L->cursor = L->limit = L->eof = nullptr;
        }
        L->finished = true;
        return 0;
}

// Appends n bytes to cdata, growing it by whole chunks.
void setCdata(XMLLexer_T L, const char* s, long n) {
        if (L->cdatalen + n > L->cdatasize) {
                long size = L->cdatasize + ((L->cdatalen + n - L->cdatasize) / kChunk + 1) * kChunk;
                if (size >= INT_MAX)
                        THROW(MemoryException, "XMLLexer: a text of more than %d bytes",
                              L->cdatalen);
                L->cdatasize = static_cast<int>(size);
                RESIZE(L->cdata, L->cdatasize + 1);
        }
        memcpy(L->cdata + L->cdatalen, s, static_cast<size_t>(n));
        L->cdatalen += static_cast<int>(n);
}

// Skips a comment, directive or DTD at the cursor. On a nested opening, or at the end
// of the input, logs why and returns false.
bool skip(XMLLexer_T L, const Section& s) {
        int line = L->line;
        L->cursor += s.open.size();
        for (;;) {
                // Nothing behind the cursor is needed again, so the buffer may slide past it.
                L->token = L->cursor;
                int c = peek(L, 0);
                if (c < 0) {
                        Error_error(s.unterminated, line);
                        finish(L);
                        return false;
                }
                if (c == s.close[0] && looksAt(L, s.close)) {
                        L->cursor += s.close.size();
                        return true;
                }
                if (c == '<' && looksAt(L, s.open)) {
                        Error_error(s.nested, L->line);
                        return false;
                }
                if (c == '\n')
                        L->line++;
                L->cursor++;
        }
}

// '=' at the cursor: blanks, then a quoted value or a bare run of name bytes. Returns
// the value's length from the '=' on, or 0 if none follows and the '=' stands alone.
long valueLength(XMLLexer_T L) {
        long i = 1;
        int c;
        while (is(c = peek(L, i), kBlank))
                i++;
        if (c == '"' || c == '\'') {
                long j = i + 1;
                int d;
                while (is(d = peek(L, j), kQuotable) && d != c)
                        j++;
                return d == c ? j + 1 : 0;
        }
        long j = i;
        while (is(peek(L, j), kNameByte))
                j++;
        return j > i ? j : 0;
}

int scanValue(XMLLexer_T L) {
        long n = valueLength(L);
        if (!n) {
                L->cursor++;
                return '=';
        }
        L->value = Str_unquote(Str_ndup(L->cursor + 1, static_cast<int>(n - 1)));
        L->cursor += n;
        return VALUE;
}

// A run of name bytes at the cursor: a KEY if it is followed by blanks and '=' (a KEY may
// hold double quotes), else a NAME, or a lone '"'.
int scanName(XMLLexer_T L) {
        long run = 0;
        int c;
        while (is(c = peek(L, run), kNameByte) || c == '"')
                run++;
        long end = run;
        while ((c = peek(L, end)) == ' ' || c == '\t')
                end++;
        if (c == '=') {
                L->context = L->cursor + run;
                L->value = Str_trim(Str_ndup(L->cursor, static_cast<int>(end)));
                L->cursor += end;
                return KEY;
        }
        long name = 0;
        while (name < run && L->cursor[name] != '"')
                name++;
        if (!name) {
                L->cursor++;
                return '"';
        }
        L->value = Str_trim(Str_ndup(L->cursor, static_cast<int>(name)));
        L->cursor += name;
        return NAME;
}

int scanMarkup(XMLLexer_T L) {
        for (;;) {
                L->token = L->marker = L->cursor;
                int c = peek(L, 0);
                switch (c) {
                case -1:
                        return finish(L);
                case ' ':
                case '\t':
                case '\r':
                        L->cursor++;
                        break;
                case '\n':
                        L->line++;
                        L->cursor++;
                        break;
                case '<':
                        switch (peek(L, 1)) {
                        case '?':
                                if (!skip(L, kDirective))
                                        return 1;
                                break;
                        case '!':
                                if (!skip(L, looksAt(L, kComment.open) ? kComment : kDTD))
                                        return 1;
                                break;
                        case '/':
                                L->cursor += 2;
                                return CLOSE_TAG;
                        default:
                                L->cursor++;
                                return '<';
                        }
                        break;
                case '>':
                        L->cursor++;
                        L->state = kCdata;
                        return '>';
                case '/':
                        if (peek(L, 1) == '>') {
                                L->cursor += 2;
                                return END_TAG;
                        }
                        L->cursor++;
                        return '/';
                case '=':
                        return scanValue(L);
                default:
                        if (is(c, kNameByte) || c == '"')
                                return scanName(L);
                        L->cursor++;
                        // A NUL byte must not read as the end of the document.
                        return c ? c : 1;
                }
        }
}

bool atCdataSection(XMLLexer_T L) {
        static constexpr std::string_view kOpen = "<![cdata[";
        for (size_t i = 0; i < kOpen.size(); i++)
                if (tolower(peek(L, static_cast<long>(i))) != kOpen[i])
                        return false;
        return true;
}

// Takes a CDATA section literally up to "]]>". False, after logging, if it never ends.
bool readCdataSection(XMLLexer_T L) {
        int line = L->line;
        L->cursor += 9;
        for (;;) {
                if (L->limit - L->cursor < 3)
                        L->token = L->cursor;
                int c = peek(L, 0);
                if (c < 0) {
                        Error_error("Error: Unterminated CDATA section at line: %d\n", line);
                        finish(L);
                        return false;
                }
                if (c == ']' && peek(L, 1) == ']' && peek(L, 2) == '>') {
                        L->cursor += 3;
                        return true;
                }
                if (c == '\n')
                        L->line++;
                setCdata(L, L->cursor, 1);
                L->cursor++;
        }
}

// Takes text up to the next '<' or the end.
void readText(XMLLexer_T L) {
        for (;;) {
                const char* p = L->cursor;
                const char* q = p;
                while (q < L->limit && *q != '<') {
                        if (*q == '\n')
                                L->line++;
                        q++;
                }
                setCdata(L, p, q - p);
                L->cursor = q;
                if (q < L->limit)
                        return;
                L->token = L->cursor;
                if (peek(L, 0) < 0)
                        return;
        }
}

// Behind a '>': white space is skipped, then text or a CDATA section is returned as
// STRING. Returns -1 when markup follows instead.
int scanCdata(XMLLexer_T L) {
        int c;
        for (;;) {
                L->token = L->cursor;
                c = peek(L, 0);
                if (c == '\n')
                        L->line++;
                else if (!is(c, kBlank))
                        break;
                L->cursor++;
        }
        if (c < 0)
                return finish(L);
        L->state = kMarkup;
        L->cdatalen = 0;
        if (c == '<') {
                if (!atCdataSection(L))
                        return -1;
                if (!readCdataSection(L))
                        return 1;
        } else {
                readText(L);
        }
        if (!L->cdatalen)
                return -1;
        L->cdata[L->cdatalen] = 0;
        L->value = Str_trim(L->cdata);
        return STRING;
}

XMLLexer_T ctor(int isbuffer) {
        XMLLexer_T L;
        NEW0(L);
        L->isbuffer = isbuffer;
        L->state = kMarkup;
        L->cdatasize = kChunk;
        L->cdata = static_cast<char*>(ALLOC(kChunk + 1));
        return L;
}

}  // namespace

XMLLexer_T XMLLexer_new(InputStream_T urlStream) {
        assert(urlStream);
        XMLLexer_T L = ctor(false);
        L->line = 1;
        L->source.stream = urlStream;
        return L;
}

XMLLexer_T XMLLexer_create(const char* xml) {
        assert(xml);
        XMLLexer_T L = ctor(true);
        L->line = 0;
        L->source.xml = xml;
        L->token = L->cursor = xml;
        L->limit = L->eof = xml + strlen(xml);
        return L;
}

void XMLLexer_free(XMLLexer_T* L) {
        assert(L && *L);
        if (!(*L)->isbuffer)
                FREE((*L)->bot);
        FREE((*L)->cdata);
        FREE(*L);
}

int XMLLexer_nextToken(XMLLexer_T L) {
        assert(L);
        L->value = nullptr;
        L->marker = L->context = nullptr;
        if (L->finished)
                return 0;
        if (L->state == kCdata) {
                int token = scanCdata(L);
                if (token >= 0)
                        return token;
        }
        return scanMarkup(L);
}

char* XMLLexer_currentToken(XMLLexer_T L) {
        assert(L);
        return L->value;
}

int XMLLexer_getLine(XMLLexer_T L) {
        assert(L);
        return L->line;
}

const char* XMLLexer_getErrorContext(XMLLexer_T L) {
        assert(L);
        return L->bot ? L->token : "eof";
}
