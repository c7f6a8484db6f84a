#include <gtest/gtest.h>

#include <fcntl.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <set>
#include <string>

#include <vesk/Base64.h>
#include <vesk/Container.h>
#include <vesk/Crypto.h>
#include <vesk/Entropy.h>
#include <vesk/SASL.h>
#include <vesk/StringBuffer.h>
#include <vesk/assert.h>

#include "support/Support.hpp"
#include "support/TempDir.hpp"

namespace {

std::string encode(const std::string& s) {
        char out[512];
        int n = Base64_encode(out, s.data(), static_cast<int>(s.size()));
        EXPECT_EQ(n, static_cast<int>(strlen(out)));
        return out;
}

std::string decode(const char* s) {
        char out[512];
        memset(out, 'x', sizeof out);
        int n = Base64_decode(out, s);
        EXPECT_EQ(out[n], 0) << "no terminator after " << n << " bytes";
        EXPECT_LE(n, Base64_decode_len(s));
        return std::string(out, static_cast<size_t>(n));
}

bool isUpperHex(const char* s, size_t length) {
        return strlen(s) == length && strspn(s, "0123456789ABCDEF") == length;
}

// A connected pair of sockets whose ends close with the test.
struct SocketPair {
        int fd[2] = {-1, -1};
        SocketPair() { EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fd), 0); }
        ~SocketPair() { closeEnd(0), closeEnd(1); }
        void closeEnd(int i) {
                if (fd[i] >= 0)
                        close(fd[i]);
                fd[i] = -1;
        }
};

// Sends text through f from one socket pair to another and returns what comes out.
std::string through(int (*f)(int, int), const std::string& text, int* written) {
        SocketPair in, out;
        EXPECT_EQ(write(in.fd[0], text.data(), text.size()), static_cast<ssize_t>(text.size()));
        in.closeEnd(0);
        *written = f(in.fd[1], out.fd[0]);
        out.closeEnd(0);
        std::string s;
        char buffer[4096];
        ssize_t n;
        while ((n = read(out.fd[1], buffer, sizeof buffer)) > 0)
                s.append(buffer, static_cast<size_t>(n));
        return s;
}

}  // namespace

TEST(Crypto, DigestsAreUppercaseHex) {
        char result[MD_SIZE];
        EXPECT_STREQ(Crypto_md5("", result), "D41D8CD98F00B204E9800998ECF8427E");
        EXPECT_STREQ(Crypto_sha1("abc", result), "A9993E364706816ABA3E25717850C26C9CD0D89D");
        EXPECT_STREQ(Crypto_digest("SHA256", "abc", result),
                     "BA7816BF8F01CFEA414140DE5DAE2223B00361A396177A9CB410FF61F20015AD");
        EXPECT_STREQ(Crypto_digest("md5", "", result), "D41D8CD98F00B204E9800998ECF8427E");
        const unsigned char bytes[] = {0x00, 0x0f, 0xa5, 0xff};
        EXPECT_STREQ(Crypto_digest2Bytes(bytes, 4, result), "000FA5FF");
        EXPECT_STREQ(Crypto_digest2Bytes(bytes, 0, result), "");
}

TEST(Crypto, LongDigestsAndUnknownNamesFail) {
        char result[MD_SIZE];
        EXPECT_EQ(assertion([&] { Crypto_digest("sha512", "abc", result); }),
                  "(mdlen * 2) < MD_SIZE");
        unsigned char bytes[33] = {};
        EXPECT_EQ(assertion([&] { Crypto_digest2Bytes(bytes, 33, result); }),
                  "(mdlen * 2) < MD_SIZE");
        EXPECT_EQ(assertion([&] { Crypto_digest2Bytes(bytes, 32, result); }), "");
        testing::internal::CaptureStdout();
        int saved = Container_Debug;
        Container_Debug = 1;
        EXPECT_EQ(Crypto_digest("no-such-digest", "abc", result), nullptr);
        Container_Debug = saved;
        EXPECT_EQ(testing::internal::GetCapturedStdout(),
                  "Crypto: digest algorithm no-such-digest not supported\n");
}

TEST(Crypto, DigestOfADescriptor) {
        TempDir dir;
        std::string big(10000, 'v');
        std::string path = dir.write("big", big);
        char expected[MD_SIZE], result[MD_SIZE];
        int fd = open(path.c_str(), O_RDONLY);
        EXPECT_STREQ(Crypto_digestStream("sha1", fd, result), Crypto_sha1(big.c_str(), expected));
        close(fd);
        fd = open(dir.write("empty", "").c_str(), O_RDONLY);
        EXPECT_STREQ(Crypto_digestStream("md5", fd, result), "D41D8CD98F00B204E9800998ECF8427E");
        EXPECT_EQ(Crypto_digestStream("no-such-digest", fd, result), nullptr);
        close(fd);
        fd = open(dir.path().c_str(), O_RDONLY);
        EXPECT_EQ(Crypto_digestStream("md5", fd, result), nullptr) << "a directory cannot be read";
        close(fd);
}

TEST(Crypto, RandomIdsAreFreshHex) {
        Crypto_start();
        std::set<std::string> seen;
        for (int i = 0; i < 100; i++) {
                char a[MD_SIZE], b[MD_SIZE];
                ASSERT_EQ(Crypto_sessionId(a), a);
                ASSERT_EQ(Crypto_random(b), b);
                EXPECT_TRUE(isUpperHex(a, 32)) << a;
                EXPECT_TRUE(isUpperHex(b, 32)) << b;
                seen.insert(a);
                seen.insert(b);
        }
        EXPECT_EQ(seen.size(), 200u);
        Crypto_stop();
        char id[MD_SIZE];
        EXPECT_NE(Crypto_sessionId(id), nullptr) << "the generator works after a stop";
}

TEST(Base64, EncodesWithPadding) {
        EXPECT_EQ(encode("f"), "Zg==");
        EXPECT_EQ(encode("fo"), "Zm8=");
        EXPECT_EQ(encode("foobar"), "Zm9vYmFy");
        EXPECT_EQ(encode(std::string("\xfb\xff\x00", 3)), "+/8A");
}

TEST(Base64, DecodesUpToTheFirstForeignCharacter) {
        EXPECT_EQ(decode("Zm8="), "fo");
        EXPECT_EQ(decode("Zm9v YmFy"), "foo");
        EXPECT_EQ(decode("Zm9vY"), "foo") << "a lone last character gives no byte";
        EXPECT_EQ(decode("Zg"), "f") << "padding is not required";
        EXPECT_EQ(decode(""), "");
        EXPECT_EQ(decode("=Zm9v"), "");
        EXPECT_EQ(Base64_decode_len("Zm8="), 2);
}

TEST(Base64, RoundTripsEveryByteValue) {
        std::string all;
        for (int i = 0; i < 256; i++)
                all += static_cast<char>(i);
        for (size_t n = 0; n <= 100; n++) {
                std::string in = all.substr(n, n);
                std::string text = encode(in);
                EXPECT_EQ(text.size(), (in.size() + 2) / 3 * 4);
                char out[256];
                int length = Base64_decode_binary(out, text.c_str());
                ASSERT_EQ(length, static_cast<int>(in.size()));
                EXPECT_EQ(std::string(out, static_cast<size_t>(length)), in);
                EXPECT_EQ(Base64_decode_len(text.c_str()), length);
        }
}

TEST(Base64, StringBuffersAreReplaced) {
        StringBuffer_T sb = StringBuffer_new("Aladdin:open sesame");
        EXPECT_EQ(Base64_encodeBuffer(sb), sb);
        EXPECT_STREQ(StringBuffer_toString(sb), "QWxhZGRpbjpvcGVuIHNlc2FtZQ==");
        EXPECT_STREQ(StringBuffer_toString(Base64_decodeBuffer(sb)), "Aladdin:open sesame");
        StringBuffer_set(sb, "%s", "YQBi");  // "a", a zero byte, "b"
        EXPECT_STREQ(StringBuffer_toString(Base64_decodeBuffer(sb)), "a");
        StringBuffer_clear(sb);
        EXPECT_STREQ(StringBuffer_toString(Base64_encodeBuffer(sb)), "");
        StringBuffer_free(&sb);
}

TEST(Base64, StreamsRoundTrip) {
        std::string text;
        for (int i = 0; i < 5000; i++)
                text += static_cast<char>(i * 7);
        int written = 0;
        std::string encoded = through(Base64_encodeStream, text, &written);
        EXPECT_EQ(written, 5000);
        EXPECT_EQ(encoded.find('\n'), 64u) << "the filter breaks lines";
        std::string decoded = through(Base64_decodeStream, encoded, &written);
        EXPECT_EQ(written, 5000);
        EXPECT_EQ(decoded, text);
        EXPECT_EQ(through(Base64_decodeStream, "Zm9vYmFy\n", &written), "foobar");
        EXPECT_EQ(through(Base64_encodeStream, "", &written), "");
        EXPECT_EQ(written, 0);
}

TEST(SASL, PlainCredential) {
        char result[257];
        EXPECT_STREQ(SASL_plain("tim", "tanstaaftanstaaf", result), "AHRpbQB0YW5zdGFhZnRhbnN0YWFm");
        EXPECT_STREQ(SASL_plain("", "", result), "AAA=");
        std::string user(95, 'u'), password(95, 'p');
        EXPECT_EQ(strlen(SASL_plain(user.c_str(), password.c_str(), result)), 256u);
        char plain[193];
        EXPECT_EQ(Base64_decode_binary(plain, result), 192);
        EXPECT_EQ(plain[0], 0);
        EXPECT_EQ(plain[96], 0);
        password += 'p';
        EXPECT_EQ(assertion([&] { SASL_plain(user.c_str(), password.c_str(), result); }),
                  "SASL PLAIN authentication failed -- username and password too long");
}
