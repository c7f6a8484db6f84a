#include <stdint.h>
#include <stdio.h>
#include <string.h>

#include <vesk/Mem.h>
#include <vesk/Str.h>
#include <vesk/XMLLexer.h>
#include <vesk/XMLParser.h>
#include <vesk/assert.h>

#include "util/Holder.hpp"

namespace {

// Slots in the attribute table: name and value pairs and the closing NULL.
constexpr int kAttributes = 256;

}  // namespace

struct XMLParser_S {
        void* ctx;
        URL_T url;
        int index;
        int token;
        const char* xml;
        char* attributes[kAttributes];
        XMLParser_EndElement endElement;
        XMLParser_EndDocument endDocument;
        XMLParser_ErrorHandler errorHandler;
        XMLParser_StartDocument startDocument;
        XMLParser_StartElement startElement;
        XMLLexer_T lexer;
};

namespace {

/*
 * The grammar, an LALR(1) automaton over the lexer's tokens:
 *
 *   1 document: statement
 *   2 statement: start_tag statement end_tag statement
 *   3          | closing_tag statement
 *   4          | (nothing)
 *   5 start_tag: '<' NAME atttrib_list '>'
 *   6          | '<' NAME atttrib_list '>' STRING
 *   7 end_tag: CLOSE_TAG NAME '>'
 *   8 closing_tag: '<' NAME atttrib_list END_TAG
 *   9 atttrib_list: (nothing)
 *  10             | atttrib_list attribute
 *  11 attribute: KEY VALUE
 *
 * A state that can reduce does so on any token it cannot shift (its default reduction),
 * so an error shows only in a state that can only shift, and the tokens it expects are
 * exactly its shifts. That keeps the messages short and the same for every input that
 * goes wrong at the same place.
 */

// Terminals, in the order in which they are listed as expected.
enum Terminal {
        tEnd,
        tError,
        tUndefined,
        tEndTag,
        tCloseTag,
        tString,
        tName,
        tKey,
        tValue,
        tLt,
        tGt
};
constexpr int kTerminals = 11;
constexpr const char* kTerminalName[kTerminals] = {"$end",      "error",  "$undefined", "END_TAG",
                                                   "CLOSE_TAG", "STRING", "NAME",       "KEY",
                                                   "VALUE",     "'<'",    "'>'"};

enum Nonterminal {
        nDocument,
        nStatement,
        nStartTag,
        nEndTag,
        nClosingTag,
        nAttribList,
        nAttribute
};

struct Rule {
        Nonterminal lhs;
        int length;
};
// Indexed by rule number; rule 0, the accepting one, is never reduced.
constexpr Rule kRule[] = {{nDocument, 0},   {nDocument, 1},   {nStatement, 4},  {nStatement, 2},
                          {nStatement, 0},  {nStartTag, 4},   {nStartTag, 5},   {nEndTag, 3},
                          {nClosingTag, 4}, {nAttribList, 0}, {nAttribList, 2}, {nAttribute, 2}};

constexpr int kStates = 21;
constexpr int kAccept = 100;

// The shifts of each state, -1 for none.
constexpr auto kShift = [] {
        struct {
                int8_t to[kStates][kTerminals];
        } t{};
        for (auto& row : t.to)
                for (auto& to : row)
                        to = -1;
        t.to[0][tLt] = 1;    // document: . statement
        t.to[1][tName] = 6;  // start_tag or closing_tag: '<' . NAME ...
        t.to[2][tEnd] = kAccept;
        t.to[4][tLt] = 1;       // statement: start_tag . statement end_tag statement
        t.to[5][tLt] = 1;       // statement: closing_tag . statement
        t.to[7][tEndTag] = 10;  // '<' NAME atttrib_list . ('>' | END_TAG | attribute)
        t.to[7][tKey] = 11;
        t.to[7][tGt] = 8;
        t.to[8][tString] = 9;      // start_tag: '<' NAME atttrib_list '>' . [STRING]
        t.to[11][tValue] = 12;     // attribute: KEY . VALUE
        t.to[14][tCloseTag] = 15;  // statement: start_tag statement . end_tag statement
        t.to[15][tName] = 16;      // end_tag: CLOSE_TAG . NAME '>'
        t.to[16][tGt] = 17;        // end_tag: CLOSE_TAG NAME . '>'
        t.to[18][tLt] = 1;         // statement: start_tag statement end_tag . statement
        return t;
}();

// The default reduction of each state, 0 for none.
constexpr int8_t kReduce[kStates] = {4, 0,  0,  1, 4, 4, 9, 0, 5, 6, 8,
                                     0, 11, 10, 0, 0, 0, 7, 4, 2, 3};

int gotoState(int state, Nonterminal lhs) {
        switch (lhs) {
        case nDocument:
                return 2;
        case nStatement:
                return state == 0 ? 3 : state == 4 ? 14 : state == 5 ? 20 : 19;
        case nStartTag:
                return 4;
        case nClosingTag:
                return 5;
        case nEndTag:
                return 18;
        case nAttribList:
                return 7;
        case nAttribute:
                return 13;
        }
        return 0;
}

bool shifts(int state) {
        for (int8_t to : kShift.to[state])
                if (to >= 0)
                        return true;
        return false;
}

int translate(int token) {
        switch (token) {
        case 0:
                return tEnd;
        case END_TAG:
                return tEndTag;
        case CLOSE_TAG:
                return tCloseTag;
        case STRING:
                return tString;
        case NAME:
                return tName;
        case KEY:
                return tKey;
        case VALUE:
                return tValue;
        case '<':
                return tLt;
        case '>':
                return tGt;
        default:
                return tUndefined;
        }
}

bool ownsValue(int token) {
        return token == NAME || token == KEY || token == VALUE;
}

// Parser states with their values. Heap texts still held here (names not yet used, a
// token read ahead) are freed however parsing ends, a raised exception included.
class Stack {
public:
        // As deep as documents may nest; one level takes one entry.
        static constexpr int kMaxDepth = 10000;

        struct Entry {
                int state;
                char* value;
                bool owned;
        };
        int lookahead = -1;  // -1: none read
        char* lookaheadValue = nullptr;

        Stack() {
                entries_ = static_cast<Entry*>(ALLOC(capacity_ * static_cast<int>(sizeof(Entry))));
        }
        ~Stack() {
                dropLookahead();
                while (size_)
                        pop(1);
                FREE(entries_);
        }
        Stack(const Stack&) = delete;
        Stack& operator=(const Stack&) = delete;

        // False when the stack is full.
        bool push(int state, char* value = nullptr, bool owned = false) {
                if (size_ == capacity_) {
                        if (capacity_ >= kMaxDepth)
                                return false;
                        capacity_ = capacity_ * 2 < kMaxDepth ? capacity_ * 2 : kMaxDepth;
                        RESIZE(entries_, capacity_ * static_cast<int>(sizeof(Entry)));
                }
                entries_[size_++] = {state, value, owned};
                return size_ < kMaxDepth;
        }
        void pop(int n) {
                for (; n > 0; n--) {
                        Entry& e = entries_[--size_];
                        if (e.owned)
                                FREE(e.value);
                }
        }
        int state() const { return entries_[size_ - 1].state; }
        // The value i entries below the top (0: the top).
        char* value(int i) const { return entries_[size_ - 1 - i].value; }
        // Hands the owned text i entries below the top to the caller.
        char* take(int i) {
                Entry& e = entries_[size_ - 1 - i];
                e.owned = false;
                return e.value;
        }
        void dropLookahead() {
                if (ownsValue(lookahead))
                        FREE(lookaheadValue);
                lookahead = -1;
                lookaheadValue = nullptr;
        }

private:
        int capacity_ = 200;
        int size_ = 0;
        Entry* entries_;
};

// A name taken off the stack, freed when a rule's action is done with it, or leaves it.
using Text = vesk::Block<char>;

void freeAttributes(XMLParser_T P) {
        for (int i = 0; i < P->index; i++)
                FREE(P->attributes[i]);
        P->index = 0;
        P->attributes[0] = nullptr;
}

void addAttribute(XMLParser_T P, char* name, char* value) {
        P->attributes[P->index] = name;
        P->attributes[P->index + 1] = value;
        P->index += 2;
        if (P->index > kAttributes - 1)
                THROW(AssertException,
                      "XMLParser: Element attribute table size exceeded. The maximum number of "
                      "attributes in a <tag> is %d",
                      kAttributes);
        P->attributes[P->index] = nullptr;
}

void startTag(XMLParser_T P, const char* name, const char* cdata) {
        if (P->startElement) {
                P->startElement(name, const_cast<const char**>(P->attributes), cdata, P->ctx);
                freeAttributes(P);
        }
}

// Runs the action of rule r on the values at the top of the stack.
void act(XMLParser_T P, Stack& S, int r) {
        switch (r) {
        case 5: {
                Text name(S.take(2));
                startTag(P, name.get(), nullptr);
                break;
        }
        case 6: {
                Text name(S.take(3));
                startTag(P, name.get(), S.value(0));
                break;
        }
        case 7: {
                Text name(S.take(1));
                if (P->endElement)
                        P->endElement(name.get(), P->ctx);
                break;
        }
        case 8: {
                Text name(S.take(2));
                startTag(P, name.get(), nullptr);
                if (P->endElement)
                        P->endElement(name.get(), P->ctx);
                break;
        }
        case 11: {
                char* key = S.take(1);
                addAttribute(P, key, S.take(0));
                break;
        }
        default:
                break;
        }
}

// The reason for a syntax error in state, with what the state could have taken.
void describe(int state, int token, char* text, size_t size) {
        int n = snprintf(text, size, "syntax error, unexpected %s", kTerminalName[token]);
        const char* expected[kTerminals];
        int count = 0;
        for (int t = 0; t < kTerminals; t++)
                if (t != tError && kShift.to[state][t] >= 0)
                        expected[count++] = kTerminalName[t];
        if (count > 4)
                return;
        for (int i = 0; i < count && n > 0 && static_cast<size_t>(n) < size; i++)
                n += snprintf(text + n, size - static_cast<size_t>(n), "%s%s",
                              i ? " or " : ", expecting ", expected[i]);
}

void reportError(XMLParser_T P, const char* reason) {
        if (!P->errorHandler)
                return;
        const char* context = XMLLexer_getErrorContext(P->lexer);
        char message[256];
        snprintf(message, sizeof message, "Parse error at line [%d] near \"%-.29s%s\" -- %s",
                 XMLLexer_getLine(P->lexer), context, strlen(context) > 29 ? "..." : "", reason);
        P->errorHandler(message, P->ctx);
}

bool runGrammar(XMLParser_T P) {
        Stack S;
        S.push(0);
        for (;;) {
                int state = S.state();
                int rule = kReduce[state];
                if (shifts(state)) {
                        if (S.lookahead < 0) {
                                S.lookahead = P->token = XMLLexer_nextToken(P->lexer);
                                S.lookaheadValue = XMLLexer_currentToken(P->lexer);
                        }
                        int t = translate(S.lookahead);
                        int to = kShift.to[state][t];
                        if (to == kAccept)
                                return true;
                        if (to >= 0) {
                                bool owned = ownsValue(S.lookahead);
                                char* value = S.lookaheadValue;
                                S.lookahead = -1;
                                S.lookaheadValue = nullptr;
                                if (!S.push(to, value, owned)) {
                                        reportError(P, "memory exhausted");
                                        return false;
                                }
                                continue;
                        }
                        if (!rule) {
                                // Texts are at most "syntax error, unexpected CLOSE_TAG,
                                // expecting END_TAG or KEY or '>'", so they always fit.
                                char reason[128];
                                describe(state, t, reason, sizeof reason);
                                S.dropLookahead();
                                reportError(P, reason);
                                return false;
                        }
                }
                act(P, S, rule);
                S.pop(kRule[rule].length);
                if (!S.push(gotoState(S.state(), kRule[rule].lhs))) {
                        reportError(P, "memory exhausted");
                        return false;
                }
        }
}

XMLParser_T ctor(XMLLexer_T lexer, void* ctx) {
        XMLParser_T P;
        NEW0(P);
        P->ctx = ctx;
        P->lexer = lexer;
        return P;
}

}  // namespace

XMLParser_T XMLParser_new(URL_T url, void* ctx) {
        assert(url);
        InputStream_T stream = nullptr;
        TRY
                stream = URL_getInputStream(url);
        ELSE
                URL_free(&url);
                RETHROW;
        END_TRY;
        XMLParser_T P = ctor(XMLLexer_new(stream), ctx);
        P->url = url;
        return P;
}

XMLParser_T XMLParser_createFromStream(InputStream_T stream, void* ctx) {
        assert(stream);
        return ctor(XMLLexer_new(stream), ctx);
}

XMLParser_T XMLParser_createFromBuffer(const char* xml, void* ctx) {
        assert(xml);
        XMLParser_T P = ctor(XMLLexer_create(xml), ctx);
        P->xml = xml;
        return P;
}

void XMLParser_free(XMLParser_T* P) {
        assert(P && *P);
        freeAttributes(*P);
        if ((*P)->url)
                URL_free(&(*P)->url);
        XMLLexer_free(&(*P)->lexer);
        FREE(*P);
}

bool XMLParser_parse(XMLParser_T P) {
        assert(P);
        if (P->startDocument)
                P->startDocument(P->ctx);
        bool ok = runGrammar(P);
        if (P->endDocument)
                P->endDocument(P->ctx);
        return ok;
}

int XMLParser_getCurrentLine(XMLParser_T P) {
        assert(P);
        return XMLLexer_getLine(P->lexer);
}

const char* XMLParser_getAttribute(const char* name, const char** attributes) {
        if (attributes)
                for (int i = 0; attributes[i]; i += 2)
                        if (Str_isEqual(attributes[i], name))
                                return attributes[i + 1];
        return nullptr;
}

void XMLParser_setStartDocumentHandler(XMLParser_T P, XMLParser_StartDocument startDocument) {
        assert(P);
        assert(startDocument);
        P->startDocument = startDocument;
}

void XMLParser_setEndDocumentHandler(XMLParser_T P, XMLParser_EndDocument endDocument) {
        assert(P);
        assert(endDocument);
        P->endDocument = endDocument;
}

void XMLParser_setStartElementHandler(XMLParser_T P, XMLParser_StartElement startElement) {
        assert(P);
        assert(startElement);
        P->startElement = startElement;
}

void XMLParser_setEndElementHandler(XMLParser_T P, XMLParser_EndElement endElement) {
        assert(P);
        assert(endElement);
        P->endElement = endElement;
}

void XMLParser_setErrorHandler(XMLParser_T P, XMLParser_ErrorHandler errorHandler) {
        assert(P);
        assert(errorHandler);
        P->errorHandler = errorHandler;
}
