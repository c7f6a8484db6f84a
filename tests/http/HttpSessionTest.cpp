#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

#include <vesk/Arena.h>
#include <vesk/Build.h>
#include <vesk/Context.h>
#include <vesk/HttpSession.h>
#include <vesk/Mem.h>
#include <vesk/Principal.h>
#include <vesk/Realm.h>
#include <vesk/SessionManager.h>
#include <vesk/Str.h>
#include <vesk/StringBuffer.h>
#include <vesk/Table.h>

#include "http/SessionBlob.hpp"
#include "support/Database.hpp"
#include "support/Support.hpp"
#include "support/TempDir.hpp"

namespace {

using Attributes = std::map<std::string, std::string>;

const char* const kIllegal = "Illegal format of Session data blob";

struct Blob {
        Table_T table = Table_new(15, Str_cmp, Str_hash);
        ~Blob() {
                vesk::clearSessionAttributes(table);
                Table_free(&table);
        }
        void put(const std::string& name, const std::string& value) {
                vesk::SessionAttribute* a;
                NEW(a);
                a->name = Str_dup(name.c_str());
                a->value = Str_dup(value.c_str());
                Table_put(table, a->name, a);
        }
        Attributes read() const {
                Attributes all;
                void** array = Table_toArray(table);
                for (int i = 0; array[i]; i += 2) {
                        auto a = static_cast<vesk::SessionAttribute*>(array[i + 1]);
                        all[a->name] = a->value;
                }
                FREE(array);
                return all;
        }
        std::string encode() const {
                StringBuffer_T b = vesk::encodeSessionAttributes(table);
                if (!b)
                        return "<null>";
                std::string s(StringBuffer_toString(b),
                              static_cast<size_t>(StringBuffer_length(b)));
                StringBuffer_free(&b);
                return s;
        }
        // Decodes the bytes from an exact heap copy, so that a read past them is caught by
        // the address checker; what was raised, or "".
        std::string decode(const std::string& bytes) {
                std::vector<char> copy(bytes.begin(), bytes.end());
                copy.push_back(0);
                return assertion([&] {
                        vesk::decodeSessionAttributes(copy.data(), static_cast<int>(bytes.size()),
                                                      table);
                });
        }
};

Attributes roundTrip(const Attributes& in) {
        Blob from;
        for (auto& [name, value] : in)
                from.put(name, value);
        Blob to;
        EXPECT_EQ(to.decode(from.encode()), "");
        return to.read();
}

}  // namespace

TEST(SessionBlob, AwkwardValuesSurviveTheRoundTrip) {
        Attributes awkward = {
            {"empty", ""},
            {"a;b:c", "a;b:c"},
            {"3:abc;", "5:x;y;"},
            {";", ":"},
            {"12", "345"},
            {"long", std::string(100000, 'x') + ";9:"},
            {"utf8", "\xc3\xa9t\xc3\xa9"},
        };
        EXPECT_EQ(roundTrip(awkward), awkward);
}

TEST(SessionBlob, RecordsAreLengthPrefixedAndNoAttributesStoreNothing) {
        Blob b;
        EXPECT_EQ(b.encode(), "<null>");
        b.put("user", "a;b");
        EXPECT_EQ(b.encode(), "4:user;3:a;b;");
}

TEST(SessionBlob, TrailingTextWithoutAColonIsIgnored) {
        Blob b;
        EXPECT_EQ(b.decode("1:a;1:b;trailing"), "");
        EXPECT_EQ(b.read(), (Attributes{{"a", "b"}}));
        Blob only;
        EXPECT_EQ(only.decode("no separator here"), "");
        EXPECT_TRUE(only.read().empty());
}

TEST(SessionBlob, MalformedRecordsAreRefusedWithoutReadingPastTheEnd) {
        for (const char* bad : {"2:a;1:b;",               // name length wrong
                                "1:a;5:b;",               // value length past the end
                                "1:a;",                   // name without a value
                                "1:a;1:b",                // value without its ';'
                                "x:a;1:b;",               // length not a number
                                ":a;1:b;",                // length missing
                                "-1:a;1:b;",              // negative length
                                "99999999999999999999:",  // length beyond any blob
                                "4:ab"}) {
                Blob b;
                EXPECT_EQ(b.decode(bad), kIllegal) << bad;
        }
}

TEST(SessionBlob, EveryTruncationEndsCleanly) {
        Blob from;
        from.put("name", "va;lue:");
        from.put("other", "");
        std::string whole = from.encode();
        for (size_t n = 0; n < whole.size(); n++) {
                Blob b;
                std::string what = b.decode(whole.substr(0, n));
                EXPECT_TRUE(what.empty() || what == kIllegal) << n << ": " << what;
        }
}

/* ------------------------------------------------------------------ Sessions */

namespace {

struct Sessions {
        Context_T context = Context_new();
        SessionManager_T manager;
        Arena_T arena = Arena_new();
        Sessions() {
                Context_setContextPath(context, "/app");
                Context_activateSessionManager(context);
                manager = Context_getSessionManager(context);
                pthread_setspecific(Request_Arena, arena);
        }
        ~Sessions() {
                pthread_setspecific(Request_Arena, nullptr);
                Arena_dispose(&arena);
                if (context)
                        Context_free(&context);
        }
};

struct Session {
        HttpSession_T S;
        explicit Session(SessionManager_T manager) : S(HttpSession_new(manager)) {
                HttpSession_setId(S, "ABC");
        }
        ~Session() { HttpSession_free(&S); }
};

}  // namespace

TEST(HttpSession, ANullFormatRemovesAndAPrefixRemovesInAnyCase) {
        Sessions app;
        Session s(app.manager);
        HttpSession_setAttribute(s.S, "n", "%s", "");
        EXPECT_EQ(HttpSession_getIntAttribute(s.S, "n"), -1) << "empty counts as missing";
        HttpSession_setAttribute(s.S, "n", nullptr);
        EXPECT_FALSE(HttpSession_hasAttribute(s.S, "n"));
        HttpSession_setAttribute(s.S, "Cart.a", "1");
        HttpSession_setAttribute(s.S, "cart.b", "2");
        HttpSession_setAttribute(s.S, "keep", "3");
        HttpSession_removeAttributeNames(s.S, "CART.");
        EXPECT_FALSE(HttpSession_hasAttribute(s.S, "Cart.a"));
        EXPECT_FALSE(HttpSession_hasAttribute(s.S, "cart.b"));
        EXPECT_TRUE(HttpSession_hasAttribute(s.S, "keep"));
}

TEST(HttpSession, AValueHandedOutIsTheRequestsOwnCopy) {
        Sessions app;
        Session s(app.manager);
        HttpSession_setAttribute(s.S, "v", "first");
        const char* first = HttpSession_getAttribute(s.S, "v");
        HttpSession_setAttribute(s.S, "v", "second");
        EXPECT_STREQ(first, "first");
        pthread_setspecific(Request_Arena, nullptr);
        // Outside a request there is no arena to copy into.
        EXPECT_EQ(HttpSession_getAttribute(s.S, "v"), nullptr);
}

TEST(HttpSession, AnInvalidSessionStaysInvalidAndChangesNothing) {
        Sessions app;
        Session s(app.manager);
        EXPECT_TRUE(HttpSession_isNew(s.S));
        EXPECT_GT(HttpSession_getCreationTime(s.S), 0);
        HttpSession_setAttribute(s.S, "kept", "1");
        HttpSession_invalidate(s.S);
        EXPECT_FALSE(HttpSession_isValid(s.S));
        EXPECT_EQ(HttpSession_getCreationTime(s.S), -1);
        HttpSession_setAttribute(s.S, "new", "1");
        HttpSession_removeAttribute(s.S, "kept");
        EXPECT_FALSE(HttpSession_hasAttribute(s.S, "new"));
        EXPECT_TRUE(HttpSession_hasAttribute(s.S, "kept"));
}

TEST(HttpSession, ExpiryCountsFromTheAccessBeforeTheLatest) {
        Sessions app;
        Session never(app.manager);
        HttpSession_setMaxInactiveInterval(never.S, -1);
        EXPECT_TRUE(HttpSession_isValid(never.S));

        Session zero(app.manager);
        HttpSession_setMaxInactiveInterval(zero.S, 0);
        EXPECT_FALSE(HttpSession_isValid(zero.S));
        HttpSession_setMaxInactiveInterval(zero.S, 900);
        EXPECT_FALSE(HttpSession_isValid(zero.S)) << "once expired, always expired";

        Session used(app.manager);
        HttpSession_setMaxInactiveInterval(used.S, 900);
        HttpSession_access(used.S);
        EXPECT_FALSE(HttpSession_isNew(used.S));
        EXPECT_TRUE(HttpSession_isValid(used.S));
}

/* ------------------------------------------------------------ The session table */

namespace {

// Sessions of /app over an SQLite database that holds the user ann.
struct Stored : Sessions {
        TempDir dir;
        testdb::Database db{dir / "sessions.db"};
        Stored() {
                ConnectionPool_T pool = ConnectionPool_new(db.url().c_str());
                ConnectionPool_setInitialConnections(pool, 1);
                ConnectionPool_setMaxConnections(pool, 1);
                Realm_setDatabase(Realm_getInstance(), pool);
                db.addUser("ann", "pw", {"staff"});
        }
        ~Stored() {
                // Sessions hold principals of the Realm: they go first.
                Context_free(&context);
                Realm_free();
        }
        Attributes attributes(HttpSession_T S) {
                Attributes all;
                HttpSession_map(
                    S,
                    [](const char* name, const char* value, void* ap) {
                            (*static_cast<Attributes*>(ap))[name] = value;
                    },
                    &all);
                return all;
        }
};

}  // namespace

TEST(HttpSessionStore, AStoredSessionLoadsBackWhole) {
        Stored app;
        Session s(app.manager);
        HttpSession_setId(s.S, "AB12");
        Attributes awkward = {{"a;b:c", "3:x;"}, {"empty", ""}, {"n", "7"}};
        for (auto& [name, value] : awkward)
                HttpSession_setAttribute(s.S, name.c_str(), "%s", value.c_str());
        HttpSession_setMaxInactiveInterval(s.S, 600);
        HttpSession_setAuthType(s.S, "FORM");
        Principal_T ann = Realm_getPrincipal(Realm_getInstance(), "ann");
        HttpSession_setPrincipal(s.S, ann);
        Principal_decrement(ann);
        HttpSession_store(s.S);
        HttpSession_setAttribute(s.S, "n", "8");
        HttpSession_store(s.S);
        EXPECT_EQ(app.db.scalar("SELECT count(*) FROM session"), "1") << "the second store updates";
        EXPECT_EQ(app.db.scalar("SELECT context FROM session"), "/app");

        HttpSession_T back = HttpSession_load(app.manager, "AB12");
        ASSERT_NE(back, nullptr);
        awkward["n"] = "8";
        EXPECT_EQ(app.attributes(back), awkward);
        EXPECT_TRUE(HttpSession_isPersistent(back));
        EXPECT_TRUE(HttpSession_isNew(back));
        EXPECT_EQ(HttpSession_getCreationTime(back), HttpSession_getCreationTime(s.S));
        EXPECT_EQ(HttpSession_getMaxInactiveInterval(back), 600);
        EXPECT_STREQ(HttpSession_getAuthType(back), "FORM");
        ASSERT_NE(HttpSession_getPrincipal(back), nullptr);
        EXPECT_STREQ(Principal_getName(HttpSession_getPrincipal(back)), "ann");
        EXPECT_EQ(Principal_refcount(HttpSession_getPrincipal(back)), 2) << "one per session";
        HttpSession_free(&back);
        EXPECT_EQ(HttpSession_load(app.manager, "NOSUCH"), nullptr);
}

TEST(HttpSessionStore, NoAttributesStoreNullAndAGoneUserLeavesNoPrincipal) {
        Stored app;
        Session s(app.manager);
        HttpSession_store(s.S);
        EXPECT_EQ(app.db.scalar("SELECT data IS NULL FROM session"), "1");
        app.db.execute("UPDATE session SET principal='gone'");
        HttpSession_T back = HttpSession_load(app.manager, "ABC");
        ASSERT_NE(back, nullptr);
        EXPECT_TRUE(app.attributes(back).empty());
        EXPECT_EQ(HttpSession_getPrincipal(back), nullptr);
        HttpSession_free(&back);
}

TEST(HttpSessionStore, ACorruptBlobRefusesTheWholeSession) {
        Stored app;
        Session s(app.manager);
        HttpSession_setAttribute(s.S, "a", "1");
        HttpSession_store(s.S);
        for (const char* blob : {"1:a;5:1;", "1:a;", "9999:a;1:1;"}) {
                app.db.execute(std::string("UPDATE session SET data=CAST('") + blob + "' AS BLOB)");
                EXPECT_EQ(HttpSession_load(app.manager, "ABC"), nullptr) << blob;
        }
}

TEST(HttpSessionStore, WithoutADatabaseNothingIsStoredOrLoaded) {
        Sessions app;
        Session s(app.manager);
        HttpSession_store(s.S);
        EXPECT_EQ(HttpSession_load(app.manager, "ABC"), nullptr);
}
