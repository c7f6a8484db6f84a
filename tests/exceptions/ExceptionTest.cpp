#include <gtest/gtest.h>

#include <stdarg.h>
#include <stdio.h>

#include <stdexcept>
#include <string>
#include <thread>

#include <vesk/Container.h>
#include <vesk/Mem.h>
#include <vesk/assert.h>

#include "support/Support.hpp"

namespace {

int raisingLine;

void raiseIO(const char* message) {
        raisingLine = __LINE__ + 1;
        THROW(IOException, "%s", message);
}

// Captures what reaches the abort handler and returns instead of ending the process.
std::string abortText;
void capturingHandler(const char* format, ...) {
        char buffer[1024];
        va_list ap;
        va_start(ap, format);
        vsnprintf(buffer, sizeof buffer, format, ap);
        va_end(ap);
        abortText = buffer;
}

struct ReplacedAbortHandler {
        void (*saved)(const char*, ...) = Container_AbortHandler;
        int savedDebug = Container_Debug;
        ReplacedAbortHandler() {
                abortText.clear();
                Container_AbortHandler = capturingHandler;
        }
        ~ReplacedAbortHandler() {
                Container_AbortHandler = saved;
                Container_Debug = savedDebug;
        }
};

}  // namespace

TEST(Exception, HandlerSeesTypeLocationAndMessage) {
        std::string message, func, file;
        int line = 0;
        TRY
                raiseIO("disk gone");
                ADD_FAILURE() << "the body went on after a raise";
        CATCH(AssertException)
                ADD_FAILURE() << "a handler for another type ran";
        CATCH(IOException)
                message = Exception_frame.message;
                func = Exception_frame.func;
                file = Exception_frame.file;
                line = Exception_frame.line;
        END_TRY;
        EXPECT_EQ(message, "disk gone");
        EXPECT_EQ(func, "raiseIO");
        EXPECT_NE(file.find("ExceptionTest.cpp"), std::string::npos);
        EXPECT_EQ(line, raisingLine);
        EXPECT_TRUE(stackEmpty());
}

TEST(Exception, FinalSectionRunsAfterBodyAndAfterHandler) {
        int flagInFinally = -1;
        int finals = 0;
        TRY
        FINALLY
                flagInFinally = Exception_block.flag;
                finals++;
        END_TRY;
        EXPECT_EQ(flagInFinally, Exception_finalized);
        TRY
                THROW(IOException, NULL);
        CATCH(IOException)
                EXPECT_STREQ(Exception_frame.message, "");  // no cause, empty message
        FINALLY
                flagInFinally = Exception_block.flag;
                finals++;
        END_TRY;
        EXPECT_EQ(flagInFinally, Exception_handled);
        EXPECT_EQ(finals, 2);
        EXPECT_TRUE(stackEmpty());
}

TEST(Exception, UnhandledTypePassesThroughKeepingItsOrigin) {
        bool innerFinal = false;
        std::string func, message;
        int line = 0;
        TRY
                TRY
                        raiseIO("outer must see this");
                CATCH(AssertException)
                        ADD_FAILURE();
                FINALLY
                        innerFinal = true;
                        EXPECT_EQ(Exception_block.flag, Exception_thrown);
                END_TRY;
                ADD_FAILURE() << "an unhandled exception did not leave the block";
        CATCH(IOException)
                func = Exception_frame.func;
                line = Exception_frame.line;
                message = Exception_frame.message;
        END_TRY;
        EXPECT_TRUE(innerFinal);
        EXPECT_EQ(func, "raiseIO");
        EXPECT_EQ(line, raisingLine);
        EXPECT_EQ(message, "outer must see this");
        EXPECT_TRUE(stackEmpty());
}

TEST(Exception, HandlerRaiseSkipsItsOwnFinalSection) {
        bool innerFinal = false, outerHandled = false;
        TRY
                TRY
                        THROW(IOException, "first");
                CATCH(IOException)
                        THROW(AssertException, "from the handler");
                FINALLY
                        innerFinal = true;
                END_TRY;
        CATCH(AssertException)
                outerHandled = true;
                EXPECT_STREQ(Exception_frame.message, "from the handler");
        END_TRY;
        EXPECT_FALSE(innerFinal);
        EXPECT_TRUE(outerHandled);
        EXPECT_TRUE(stackEmpty());
}

TEST(Exception, RaiseInFinalSectionReplacesTheOneOnItsWay) {
        std::string seen;
        TRY
                TRY
                        THROW(IOException, "lost");
                FINALLY
                        THROW(NumberFormatException, "replacement");
                END_TRY;
        ELSE
                seen = std::string(Exception_frame.exception->name) + ":" + Exception_frame.message;
        END_TRY;
        EXPECT_EQ(seen, "NumberFormatException:replacement");
        EXPECT_TRUE(stackEmpty());
}

TEST(Exception, RethrowKeepsLocationAndFormatsTheMessageAgain) {
        std::string func, message;
        int line = 0;
        TRY
                TRY
                        raiseIO("100%% sure");
                CATCH(IOException)
                        EXPECT_STREQ(Exception_frame.message, "100%% sure");
                        RETHROW;
                END_TRY;
        CATCH(IOException)
                func = Exception_frame.func;
                line = Exception_frame.line;
                message = Exception_frame.message;
        END_TRY;
        EXPECT_EQ(func, "raiseIO");
        EXPECT_EQ(line, raisingLine);
        EXPECT_EQ(message, "100% sure");
}

TEST(Exception, MessageIsCutTo510Characters) {
        std::string longText(600, 'x'), seen;
        TRY
                THROW(AssertException, "%s", longText.c_str());
        CATCH(AssertException)
                seen = Exception_frame.message;
        END_TRY;
        EXPECT_EQ(seen, std::string(510, 'x'));
}

TEST(Exception, AbsentTypeRaisesAssertWithE) {
        EXPECT_EQ(raised([] { Exception_throw(nullptr, "f", "file", 1, "ignored"); }),
                  "AssertException: e");
}

TEST(Exception, EveryWayOutOfABodyPopsItsFrame) {
        auto returnsFromBody = []() -> int {
                TRY
                        return 7;
                END_TRY;
                return 0;
        };
        EXPECT_EQ(returnsFromBody(), 7);
        EXPECT_TRUE(stackEmpty());

        for (int i = 0; i < 3; i++) {
                TRY
                        if (i == 1) break;
                        continue;
                END_TRY;
        }
        EXPECT_TRUE(stackEmpty());

        EXPECT_THROW(
            {
                    TRY
                            TRY
                                    throw std::runtime_error("foreign");
                            END_TRY;
                    END_TRY;
            },
            std::runtime_error);
        EXPECT_TRUE(stackEmpty());

        // A block left by return inside a handler must not disturb the outer block.
        auto returnsFromHandler = []() -> int {
                TRY
                        THROW(IOException, NULL);
                CATCH(IOException)
                        return 1;
                END_TRY;
                return 0;
        };
        std::string outer;
        TRY
                EXPECT_EQ(returnsFromHandler(), 1);
                THROW(AssertException, "still mine");
        CATCH(AssertException)
                outer = Exception_frame.message;
        END_TRY;
        EXPECT_EQ(outer, "still mine");
        EXPECT_TRUE(stackEmpty());
}

TEST(Exception, RaiseInOneThreadLeavesOthersAlone) {
        TRY
                Exception_Frame* mine =
                    static_cast<Exception_Frame*>(pthread_getspecific(Exception_stack));
                std::string other;
                std::thread t([&] { other = raised([] { THROW(IOException, "elsewhere"); }); });
                t.join();
                EXPECT_EQ(other, "IOException: elsewhere");
                EXPECT_EQ(pthread_getspecific(Exception_stack), mine);
                EXPECT_EQ(mine->exception, nullptr);
        END_TRY;
}

TEST(Exception, NoBlockWithoutCauseShowsObjectAddressAndLocation) {
        ReplacedAbortHandler replaced;
        std::thread([] { Exception_throw(&IOException, "fn", "file.c", 12, nullptr); }).join();
        char expected[256];
        snprintf(expected, sizeof expected, "IOException: 0x%p\n raised in fn at file.c:12\n",
                 static_cast<const void*>(&IOException));
        EXPECT_EQ(abortText, expected);
        std::thread([] { Exception_throw(&IOException, nullptr, nullptr, 3, nullptr); }).join();
        EXPECT_NE(abortText.find(" raised in ? at ?:3\n"), std::string::npos);
}

TEST(Exception, NoBlockWithCauseShowsLocationOnlyInDebug) {
        ReplacedAbortHandler replaced;
        Container_Debug = 0;
        std::thread([] {
                Exception_throw(&AssertException, "fn", "file.c", 12, "bad %d", 42);
        }).join();
        EXPECT_EQ(abortText, "AssertException: bad 42\n");
        Container_Debug = 1;
        std::thread([] {
                Exception_throw(&AssertException, "fn", "file.c", 12, "bad %d", 42);
        }).join();
        EXPECT_EQ(abortText, "AssertException: bad 42\n raised in fn at file.c:12\n");
}

TEST(Exception, ReturningAbortHandlerLetsExecutionContinue) {
        ReplacedAbortHandler replaced;
        void* p = reinterpret_cast<void*>(1);
        std::thread([&] { p = Mem_calloc(0x7fffffff, 0x7fffffff, "caller", "site.c", 5); }).join();
        EXPECT_EQ(p, nullptr);
        EXPECT_EQ(abortText.rfind("MemoryException: ", 0), 0u) << abortText;
}

TEST(ExceptionDeathTest, DefaultAbortHandlerLogsAndExitsWithOne) {
        EXPECT_EXIT(
            {
                    Container_Debug = 0;
                    THROW(IOException, "nobody catches %s", "this");
            },
            testing::ExitedWithCode(1), "^IOException: nobody catches this\n$");
}

TEST(Assert, ReportsTheLiteralCondition) {
        int nbytes = 0;
        EXPECT_EQ(assertion([&] { assert(nbytes > 0); }), "nbytes > 0");
        EXPECT_EQ(assertion([&] { assert(nbytes % 2 == 1); }), "nbytes % 2 == 1");
        EXPECT_EQ(assertion([&] { assert(nbytes == 0); }), "");
        std::string func;
        TRY(assert)(0);
        CATCH(AssertException)
        func = Exception_frame.func;
        EXPECT_STREQ(Exception_frame.message, "e");
        END_TRY;
        EXPECT_EQ(func, "assert");
}

TEST(Assert, ThreadingCallCheckPassesZeroAndTimeout) {
        EXPECT_EQ(assertion([] { Exception_wrapper(0); }), "");
        EXPECT_EQ(assertion([] { Exception_wrapper(ETIMEDOUT); }), "");
        EXPECT_EQ(assertion([] { Exception_wrapper(pthread_join(pthread_self(), nullptr)); }),
                  std::string("pthread_join(pthread_self(), nullptr) -- ") + strerror(EDEADLK));
}
