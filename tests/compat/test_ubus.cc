#include <libubus.h>

#include <gtest/gtest.h>

#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace {

constexpr int liveness_ms = 10'000;

// A recorded message by the beginning of its file's name, its number.
std::string recorded(const std::string &number)
{
    for (const auto &entry : fs::directory_iterator(TEST_DATA_DIR "/ubus")) {
        if (entry.path().filename().string().starts_with(number + "-")) {
            std::ifstream file(entry.path(), std::ios::binary);
            return {std::istreambuf_iterator<char>(file), {}};
        }
    }
    ADD_FAILURE() << "no record " << number;
    return {};
}

// Blanks in the text are for the reader.
std::string from_hex(const std::string &text)
{
    std::string digits;
    std::string bytes;
    for (const char c : text) {
        if (c != ' ')
            digits += c;
    }
    for (size_t i = 0; i + 1 < digits.size(); i += 2)
        bytes += static_cast<char>(std::stoi(digits.substr(i, 2), nullptr, 16));
    return bytes;
}

std::string to_hex(const std::string &bytes)
{
    static constexpr char digits[] = "0123456789abcdef";
    std::string text;
    for (size_t i = 0; i < bytes.size(); ++i) {
        if (i != 0 && i % 4 == 0)
            text += ' ';
        const auto byte = static_cast<uint8_t>(bytes[i]);
        text += {digits[byte >> 4], digits[byte & 15]};
    }
    return text;
}

std::string word(uint32_t value)
{
    std::string bytes;
    for (int shift = 24; shift >= 0; shift -= 8)
        bytes += static_cast<char>(value >> shift);
    return bytes;
}

// A message with these attributes; the header is type, sequence number and peer.
std::string message(const std::string &header, const std::string &attributes)
{
    const std::string content = from_hex(attributes);
    return from_hex(header) + word(static_cast<uint32_t>(content.size() + 4)) + content;
}

// The broker's end of the socket, played by a thread. Every wait is bounded, so that a client that does not
// send what it should fails the test.
class Broker {
public:
    Broker() : folder(fs::temp_directory_path() / "dnsproxyd-ubus-XXXXXX")
    {
        if (mkdtemp(folder.data()) == nullptr)
            ADD_FAILURE() << "no folder";
        listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        path().copy(address.sun_path, sizeof(address.sun_path) - 1);
        EXPECT_EQ(bind(listener, reinterpret_cast<const sockaddr *>(&address), sizeof(address)), 0);
        EXPECT_EQ(listen(listener, 4), 0);
        set_patience(listener);
    }
    Broker(const Broker &) = delete;
    Broker &operator=(const Broker &) = delete;
    ~Broker()
    {
        finish();
        hang_up();
        close(listener);
        fs::remove_all(folder);
    }

    std::string path() const { return folder + "/ubus.sock"; }

    void play(std::function<void()> script) { thread = std::thread(std::move(script)); }
    void finish()
    {
        if (thread.joinable())
            thread.join();
    }

    void accept_client()
    {
        hang_up();
        client = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
        EXPECT_GE(client, 0);
        set_patience(client);
    }
    void hang_up()
    {
        if (client >= 0)
            close(client);
        client = -1;
    }
    void stop_sending() { EXPECT_EQ(shutdown(client, SHUT_WR), 0); }

    // In pieces of at most so many bytes. The client may be gone.
    void send_bytes(const std::string &bytes, size_t piece = SIZE_MAX)
    {
        for (size_t i = 0; i < bytes.size(); i += std::min(piece, bytes.size() - i)) {
            const size_t size = std::min(piece, bytes.size() - i);
            if (send(client, bytes.data() + i, size, MSG_NOSIGNAL) != static_cast<ssize_t>(size))
                return;
        }
    }

    void send_descriptor(const std::string &bytes, int fd)
    {
        iovec part = {const_cast<char *>(bytes.data()), bytes.size()};
        alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
        msghdr header = {};
        header.msg_iov = &part;
        header.msg_iovlen = 1;
        header.msg_control = control;
        header.msg_controllen = sizeof(control);
        cmsghdr *const item = CMSG_FIRSTHDR(&header);
        item->cmsg_level = SOL_SOCKET;
        item->cmsg_type = SCM_RIGHTS;
        item->cmsg_len = CMSG_LEN(sizeof(int));
        memcpy(CMSG_DATA(item), &fd, sizeof(fd));
        EXPECT_EQ(sendmsg(client, &header, MSG_NOSIGNAL), static_cast<ssize_t>(bytes.size()));
    }

    std::string receive_bytes(size_t size)
    {
        std::string bytes(size, '\0');
        const ssize_t count = size != 0 ? recv(client, bytes.data(), size, MSG_WAITALL) : 0;
        bytes.resize(count > 0 ? static_cast<size_t>(count) : 0);
        return bytes;
    }
    void expect(const std::string &bytes) { EXPECT_EQ(to_hex(receive_bytes(bytes.size())), to_hex(bytes)); }
    void expect_end() { EXPECT_EQ(to_hex(receive_bytes(1)), ""); }

    void greet()
    {
        accept_client();
        send_bytes(recorded("01"));
    }
    // Greets, and takes the object up under the id of the records.
    void take_up()
    {
        greet();
        expect(recorded("02"));
        send_bytes(recorded("03") + recorded("04"));
    }

private:
    static void set_patience(int fd)
    {
        const timeval time = {liveness_ms / 1000, 0};
        EXPECT_EQ(setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &time, sizeof(time)), 0);
        EXPECT_EQ(setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &time, sizeof(time)), 0);
    }

    std::string folder;
    int listener = -1;
    int client = -1;
    std::thread thread;
};

// An object such as the daemon publishes.
enum { NAME, DEV, STATUS, ARGUMENTS };
const blobmsg_policy arguments[] = {
    {"name", BLOBMSG_TYPE_STRING},
    {"dev", BLOBMSG_TYPE_STRING},
    {"status", BLOBMSG_TYPE_STRING},
};

struct Interface {
    const char *dev;
    const char *status;
};
const std::vector<Interface> two = {{"eth0.2", "on"}, {"ppp-wan1", "off"}};

std::vector<Interface> interfaces;
std::vector<std::string> calls; // names and what was given
int replyStatus;
std::function<void()> beforeReply;
std::function<void(ubus_context *)> whenLost;
int losses;

int update_if(ubus_context *, ubus_object *, ubus_request_data *, const char *method, blob_attr *msg)
{
    blob_attr *tb[ARGUMENTS];
    (void)blobmsg_parse(arguments, ARGUMENTS, tb, blob_data(msg), static_cast<unsigned int>(blob_len(msg)));
    if (tb[NAME] == nullptr || tb[DEV] == nullptr || tb[STATUS] == nullptr)
        return UBUS_STATUS_INVALID_ARGUMENT;
    std::string call = method;
    for (blob_attr *attr : tb)
        call += std::string(" ") + blobmsg_get_string(attr);
    calls.push_back(call);
    return UBUS_STATUS_OK;
}

int get_state(ubus_context *ctx, ubus_object *, ubus_request_data *req, const char *method, blob_attr *)
{
    calls.emplace_back(method);
    if (beforeReply)
        beforeReply();
    blob_buf b = {};
    EXPECT_EQ(blob_buf_init(&b, 0), 0);
    for (const Interface &interface : interfaces) {
        void *const table = blobmsg_open_nested(&b, interface.dev, false);
        blobmsg_add_string(&b, "dev", interface.dev);
        blobmsg_add_string(&b, "status", interface.status);
        blob_nest_end(&b, table);
    }
    replyStatus = ubus_send_reply(ctx, req, interfaces.empty() ? nullptr : b.head);
    blob_buf_free(&b);
    return UBUS_STATUS_OK;
}

const ubus_method methods[] = {
    UBUS_METHOD("update_if", update_if, arguments),
    UBUS_METHOD_NOARG("get_state", get_state),
};

void lost(ubus_context *ctx)
{
    ++losses;
    if (whenLost)
        whenLost(ctx);
    else
        uloop_end();
}

void fail_by_timer(uloop_timeout *)
{
    ADD_FAILURE() << "nothing ended the loop";
    uloop_end();
}

void run_loop()
{
    uloop_timeout guard = {};
    guard.cb = fail_by_timer;
    uloop_timeout_set(&guard, liveness_ms);
    (void)uloop_run();
    (void)uloop_timeout_cancel(&guard); // no longer pending if it has failed the test
}

class ubus : public testing::Test {
protected:
    ubus()
    {
        for (const int number : {SIGINT, SIGTERM, SIGCHLD, SIGPIPE})
            signal(number, SIG_DFL);
        interfaces = two;
        calls.clear();
        replyStatus = -1;
        beforeReply = nullptr;
        whenLost = nullptr;
        losses = 0;
        object.name = "dnsproxy";
        object.type = &type;
        object.methods = methods;
        object.n_methods = ARRAY_SIZE(methods);
    }
    ~ubus() override
    {
        uloop_done();
        if (ctx != nullptr)
            ubus_free(ctx);
    }

    void connect()
    {
        ctx = ubus_connect(broker.path().c_str());
        ASSERT_NE(ctx, nullptr);
        ctx->connection_lost = lost;
        ubus_add_uloop(ctx);
        EXPECT_TRUE(ctx->sock.registered);
    }
    void publish()
    {
        ASSERT_NO_FATAL_FAILURE(connect());
        EXPECT_EQ(ubus_add_object(ctx, &object), UBUS_STATUS_OK);
    }
    // Publishes the object and serves it until the broker hangs up.
    void serve()
    {
        ASSERT_NO_FATAL_FAILURE(publish());
        run_loop();
        EXPECT_EQ(losses, 1);
        EXPECT_TRUE(ctx->sock.eof);
    }

    Broker broker;
    ubus_context *ctx = nullptr;
    ubus_object_type type = UBUS_OBJECT_TYPE("dnsproxy_type", methods);
    ubus_object object = {};
};

// What the recorded owner was sent and sent back.
const struct {
    const char *call;
    std::vector<const char *> answers;
} conversation[] = {
    {"24", {"25", "26"}}, {"31", {"32"}}, {"34", {"35"}}, {"36", {"37"}},
    {"38", {"39"}},       {"40", {"41"}}, {"42", {"43"}}, {"44", {"45"}},
};

} // namespace

TEST_F(ubus, sends_what_was_recorded)
{
    for (const size_t piece : {SIZE_MAX, size_t{1}}) {
        SCOPED_TRACE(piece);
        calls.clear();
        losses = 0;
        type.id = 0;
        broker.play([this, piece] {
            broker.greet();
            broker.expect(recorded("02"));
            broker.send_bytes(recorded("03") + recorded("04"), piece);
            for (const auto &row : conversation) {
                SCOPED_TRACE(row.call);
                broker.send_bytes(recorded(row.call), piece);
                for (const char *answer : row.answers)
                    broker.expect(recorded(answer));
            }
            broker.hang_up();
        });
        serve();
        broker.finish();
        EXPECT_EQ(calls, std::vector<std::string>(
                             {"get_state", "update_if wan eth0.2 on", "update_if  ppp-wan1 off"}));
        EXPECT_EQ(object.id, 0xc98f137a);
        EXPECT_EQ(type.id, 0x01b4231eU);
        EXPECT_EQ(memcmp(&ctx->local_id, recorded("01").data() + 4, 4), 0);
        ubus_free(ctx);
        ctx = nullptr;
    }
}

// Calls that come with the answer to ubus_add_object are made before it returns.
TEST_F(ubus, calls_that_come_during_registration_wait_for_it)
{
    broker.play([this] {
        broker.greet();
        broker.expect(recorded("02"));
        std::string all = recorded("03");
        for (const auto &row : conversation)
            all += recorded(row.call);
        broker.send_bytes(all + recorded("04"));
        for (const auto &row : conversation) {
            for (const char *answer : row.answers)
                broker.expect(recorded(answer));
        }
        broker.hang_up();
    });
    ASSERT_NO_FATAL_FAILURE(connect());
    EXPECT_EQ(ubus_add_object(ctx, &object), UBUS_STATUS_OK);
    EXPECT_EQ(calls.size(), 3U);
}

// More than the queue holds: what is too much is dropped, and the registration succeeds.
TEST_F(ubus, flood_during_registration_is_bounded)
{
    const std::string big =
        message("00050002 00000001", "03000008 c98f137a 0400000e 6765745f 73746174 65000000"
                                     "07000004 63080000" +
                                         std::string(0x80000 * 2 - 8, '0'));
    broker.play([this, big] {
        broker.greet();
        broker.expect(recorded("02"));
        broker.send_bytes(recorded("03") + big + big + big + big + recorded("04"));
        (void)broker.receive_bytes(1);
    });
    ASSERT_NO_FATAL_FAILURE(publish());
    EXPECT_EQ(calls.size(), 1U);
    ubus_free(ctx);
    ctx = nullptr;
}

TEST_F(ubus, reply_without_interfaces_is_empty)
{
    interfaces.clear();
    broker.play([this] {
        broker.greet();
        broker.expect(recorded("02"));
        broker.send_bytes(message("00020001 00000000", "03000008 8bdf06ee 05000008 00000007") +
                          recorded("04"));
        broker.send_bytes(recorded("80"));
        broker.expect(recorded("81") + recorded("82"));
        broker.hang_up();
    });
    serve();
}

TEST_F(ubus, reconnect_registers_again)
{
    broker.play([this] {
        broker.take_up();
        broker.hang_up();
        broker.accept_client();
        broker.send_bytes(recorded("70"));
        broker.expect(recorded("71"));
        broker.send_bytes(recorded("72") + recorded("73"));
        // The call is one for the new id.
        broker.send_bytes(
            message("00050003 00000009", "03000008 ec09a9f7 0400000e 6765745f 73746174 65000000 07000004"));
        broker.expect(from_hex("00020003 00000009 00000084 03000008 ec09a9f7") + recorded("25").substr(20));
        broker.expect(message("00010003 00000009", "01000008 00000000 03000008 ec09a9f7"));
        broker.hang_up();
    });
    serve();
    EXPECT_FALSE(ctx->sock.registered);
    EXPECT_EQ(ubus_reconnect(ctx, broker.path().c_str()), UBUS_STATUS_OK);
    EXPECT_FALSE(ctx->sock.registered);
    EXPECT_FALSE(ctx->sock.eof);
    EXPECT_EQ(object.id, 0xec09a9f7);
    EXPECT_EQ(type.id, 0x79d7b926U);
    ubus_add_uloop(ctx);
    run_loop();
    EXPECT_EQ(losses, 2);
}

TEST_F(ubus, reconnect_forgets_an_object_that_is_refused)
{
    broker.play([this] {
        broker.take_up();
        broker.hang_up();
        broker.greet();
        broker.expect(recorded("71"));
        broker.send_bytes(message("00010002 00000000", "01000008 00000002"));
        broker.greet();
        broker.expect_end();
    });
    serve();
    EXPECT_EQ(ubus_reconnect(ctx, broker.path().c_str()), UBUS_STATUS_OK);
    EXPECT_EQ(object.id, 0U);
    EXPECT_EQ(ubus_reconnect(ctx, broker.path().c_str()), UBUS_STATUS_OK);
    EXPECT_EQ(object.id, 0U);
    ubus_free(ctx);
    ctx = nullptr;
}

TEST_F(ubus, registration_tells_how_it_failed)
{
    static const struct {
        const char *name;
        std::string answer;
        bool reconnects;
        int expected;
    } rows[] = {
        {"refused", message("00010001 00000000", "01000008 00000002"), false, UBUS_STATUS_INVALID_ARGUMENT},
        {"no_id", message("00010001 00000000", "01000008 00000000"), false, UBUS_STATUS_NO_DATA},
        {"lost", "", false, UBUS_STATUS_CONNECTION_FAILED},
        {"lost_and_back", "", true, UBUS_STATUS_TIMEOUT},
        {"answers_to_others",
         message("00010002 00000000", "01000008 00000000") +
             message("00010001 00000001", "01000008 00000000"),
         false, UBUS_STATUS_CONNECTION_FAILED},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        losses = 0;
        broker.play([this, &row] {
            broker.greet();
            broker.expect(recorded("02"));
            broker.send_bytes(row.answer);
            if (row.reconnects) {
                broker.hang_up();
                broker.greet();
            }
            broker.hang_up();
        });
        ASSERT_NO_FATAL_FAILURE(connect());
        whenLost = [this, &row](ubus_context *c) {
            if (row.reconnects && losses == 1) {
                EXPECT_EQ(ubus_reconnect(c, broker.path().c_str()), UBUS_STATUS_OK);
            }
        };
        EXPECT_EQ(ubus_add_object(ctx, &object), row.expected);
        EXPECT_EQ(object.id, 0U);
        EXPECT_EQ(losses, row.expected >= UBUS_STATUS_TIMEOUT ? 1 : 0);
        broker.finish();
        ubus_free(ctx);
        ctx = nullptr;
    }
}

TEST_F(ubus, greeting_must_be_one)
{
    static const struct {
        const char *name;
        std::vector<std::string> pieces;
        bool is_good;
    } rows[] = {
        {"good", {from_hex("00000000 01020304 00000004")}, true},
        {"with_attributes", {from_hex("00000000 01020304 0000000c"), from_hex("01000008 00000000")}, true},
        {"id_0", {from_hex("00000000 00000000 00000004")}, false},
        {"id_1", {from_hex("00000000 01000000 00000004")}, false},
        {"data", {from_hex("00020000 01020304 00000004")}, false},
        {"version_1", {from_hex("01000000 01020304 00000004")}, false},
        {"no_length", {from_hex("00000000 01020304 00000003")}, false},
        {"oversized", {from_hex("00000000 01020304 00100001")}, false},
        {"cut_off", {from_hex("00000000 01020304 0000")}, false},
        {"cut_off_attributes", {from_hex("00000000 01020304 00000100"), from_hex("01000008")}, false},
        {"nothing", {}, false},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        broker.play([this, &row] {
            broker.accept_client();
            for (const std::string &piece : row.pieces)
                broker.send_bytes(piece);
            broker.hang_up();
        });
        ctx = ubus_connect(broker.path().c_str());
        EXPECT_EQ(ctx != nullptr, row.is_good);
        broker.finish();
        if (ctx != nullptr)
            ubus_free(ctx);
        ctx = nullptr;
    }
}

TEST_F(ubus, failed_reconnect_tells_what_failed)
{
    broker.play([this] {
        broker.take_up();
        broker.hang_up();
        broker.accept_client();
        broker.hang_up();
    });
    serve();
    EXPECT_EQ(ubus_reconnect(ctx, (broker.path() + "x").c_str()), UBUS_STATUS_CONNECTION_FAILED);
    EXPECT_EQ(ctx->sock.fd, -1);
    EXPECT_EQ(ubus_reconnect(ctx, std::string(108, '/').c_str()), UBUS_STATUS_CONNECTION_FAILED);
    EXPECT_EQ(ubus_reconnect(ctx, broker.path().c_str()), UBUS_STATUS_UNKNOWN_ERROR);
    // The number is that of a descriptor that is closed; the next call would close it again.
    EXPECT_GE(ctx->sock.fd, 0);
    EXPECT_EQ(fcntl(ctx->sock.fd, F_GETFD), -1);
    ctx->sock.fd = -1;
    EXPECT_EQ(ubus_add_object(ctx, &object), UBUS_STATUS_CONNECTION_FAILED);
    EXPECT_EQ(losses, 1);
}

TEST_F(ubus, answers_to_unusual_messages)
{
    static const std::string object_id = "03000008 c98f137a";
    static const std::string method = "0400000e 6765745f 73746174 65000000"; // get_state
    static const std::string data = "07000004";
    static const std::string reply = from_hex("00020009 0a0b0c0d 00000084") + recorded("25").substr(12);
    static const std::string status_0 = message("00010009 0a0b0c0d", "01000008 00000000 03000008 c98f137a");
    static const std::string invoke = "00050009 0a0b0c0d";
    static const struct {
        const char *name;
        std::string bytes;
        std::string answer;
    } rows[] = {
        {"other_order", message(invoke, data + method + object_id), reply + status_0},
        {"unknown_attributes",
         message(invoke, "0f000005 01000000 7f000004 00000004" + object_id + method + data),
         reply + status_0},
        {"later_of_two", message(invoke, "03000008 00000009" + object_id + method + data), reply + status_0},
        {"object_id_of_3_bytes", message(invoke, "03000007 c98f1300" + method + data), ""},
        {"object_id_of_no_bytes", message(invoke, "03000004" + method + data), ""},
        {"no_object_id", message(invoke, method + data), ""},
        {"nothing", message(invoke, ""), ""},
        {"unknown_object", message(invoke, "03000008 00000009" + method + data),
         message("00010000 00000000", "01000008 00000004 03000008 00000000")},
        {"no_method", message(invoke, object_id + data),
         message("00010000 00000000", "01000008 00000002 03000008 00000000")},
        {"method_without_nul", message(invoke, object_id + "0400000d 6765745f 73746174 65000000" + data),
         message("00010000 00000000", "01000008 00000002 03000008 00000000")},
        {"no_reply", message(invoke, object_id + method + "0a000005 01000000" + data), reply},
        {"no_reply_0", message(invoke, object_id + method + "0a000005 00000000" + data), reply + status_0},
        {"length_too_long", message(invoke, object_id + method + "07000008"),
         message("00010009 0a0b0c0d", "01000008 00000002 03000008 c98f137a")},
        {"length_too_short", message(invoke, object_id + "04000003" + data),
         message("00010000 00000000", "01000008 00000002 03000008 00000000")},
        {"rest_of_3_bytes", message(invoke, object_id + method + data + "000000"), reply + status_0},
        {"bad_arguments",
         message(invoke, object_id + "0400000e 75706461 74655f69 66000000 0700000c 83000040 ffffffff"),
         message("00010009 0a0b0c0d", "01000008 00000002 03000008 c98f137a")},
        {"hello", message("00000000 00000000", ""), ""},
        {"ping", message("00030001 00000000", ""), ""},
        {"unknown_type", message("00ff0001 00000000", object_id), ""},
        {"answer_to_nothing", message("00010001 00000000", "01000008 00000000"), ""},
        {"other_version", from_hex("01050009 0a0b0c0d 00000014"), ""},
        {"length_below_4", from_hex("00050009 0a0b0c0d 00000003"), ""},
    };
    broker.play([this] {
        broker.take_up();
        for (const auto &row : rows) {
            SCOPED_TRACE(row.name);
            broker.send_bytes(row.bytes + recorded("24"));
            broker.expect(row.answer + recorded("25") + recorded("26"));
        }
        broker.hang_up();
    });
    serve();
}

TEST_F(ubus, longest_message_arrives_and_a_longer_one_ends_the_connection)
{
    const std::string attributes = "03000008 c98f137a 0400000e 6765745f 73746174 65000000 07000004";
    const size_t longest = (1 << 20) - 4;
    const std::string padding((longest - from_hex(attributes).size()) * 2, '0');
    const std::string fits = message("00050002 d1fa9781", attributes + padding);
    broker.play([this, fits] {
        broker.take_up();
        broker.send_bytes(fits);
        broker.expect(recorded("25") + recorded("26"));
        broker.send_bytes(from_hex("00050002 d1fa9781 00100001"));
        (void)broker.receive_bytes(1); // until the client is gone
    });
    serve();
    ubus_free(ctx);
    ctx = nullptr;
}

// A table in a table, and so on, as deep as a message is long.
TEST_F(ubus, depth_does_not_matter)
{
    std::string nested;
    for (uint32_t length = 8 * 50'000; length > 0; length -= 8)
        nested += word(0x82000000 | length) + std::string(4, '\0');
    const std::string data = word(0x07000000 | static_cast<uint32_t>(nested.size() + 4)) + nested;
    const std::string deep =
        message("00050009 0a0b0c0d", "03000008 c98f137a 0400000e 75706461 74655f69 66000000" + to_hex(data));
    broker.play([this, deep] {
        broker.take_up();
        broker.send_bytes(deep);
        broker.expect(message("00010009 0a0b0c0d", "01000008 00000002 03000008 c98f137a"));
        broker.hang_up();
    });
    serve();
}

// Damaged records and noise, at any moment: the client ends its connection or goes on, and never anything
// else.
TEST_F(ubus, survives_garbage)
{
    std::vector<std::string> records;
    for (const auto &row : conversation)
        records.push_back(recorded(row.call));
    for (const char *other : {"01", "03", "04", "72"})
        records.push_back(recorded(other));
    std::mt19937 random(1);
    for (int round = 0; round < 300; ++round) {
        SCOPED_TRACE(round);
        losses = 0;
        type.id = 0;
        std::string noise;
        for (int i = 0; i < 20; ++i) {
            std::string bytes = records[random() % records.size()];
            if (random() % 8 == 0)
                bytes.resize(random() % bytes.size());
            for (unsigned flips = random() % 4; flips > 0 && !bytes.empty(); --flips)
                bytes[random() % bytes.size()] =
                    static_cast<char>(random() % 2 == 0 ? random() : random() % 16);
            noise += bytes;
        }
        const bool early = round % 2 == 0;
        broker.play([this, early, noise] {
            broker.greet();
            broker.expect(recorded("02"));
            if (!early)
                broker.send_bytes(recorded("03") + recorded("04"));
            broker.send_bytes(noise);
            broker.stop_sending();
            while (!broker.receive_bytes(1).empty())
                ;
            broker.hang_up();
        });
        ASSERT_NO_FATAL_FAILURE(connect());
        (void)ubus_add_object(ctx, &object); // who knows
        if (losses == 0)
            run_loop();
        EXPECT_EQ(losses, 1);
        ubus_free(ctx);
        ctx = nullptr;
        broker.finish();
    }
}

// A broker that only stops sending is gone, too. That is told once, and a socket that is left in the loop
// leaves it.
TEST_F(ubus, half_closed_connection_does_not_spin)
{
    broker.play([this] {
        broker.take_up();
        broker.send_bytes(recorded("24"));
        broker.stop_sending();
        broker.expect(recorded("25") + recorded("26"));
        broker.expect_end();
    });
    ASSERT_NO_FATAL_FAILURE(publish());
    static uloop_timeout timer;
    timer = {};
    timer.cb = [](uloop_timeout *) { uloop_end(); };
    whenLost = [](ubus_context *) { uloop_timeout_set(&timer, 20); };
    run_loop();
    EXPECT_EQ(losses, 1);
    EXPECT_FALSE(ctx->sock.registered);
    ubus_free(ctx);
    ctx = nullptr;
}

// The loss that ubus_connect has the loop end for is one of a socket that is still in it.
TEST_F(ubus, loss_ends_the_loop_by_default_while_the_socket_is_in_it)
{
    for (const bool dies : {false, true}) {
        SCOPED_TRACE(dies);
        broker.play([this, dies] {
            broker.greet();
            if (dies)
                broker.hang_up();
            else
                broker.stop_sending();
        });
        ctx = ubus_connect(broker.path().c_str());
        ASSERT_NE(ctx, nullptr);
        ubus_add_uloop(ctx);
        broker.finish();
        uloop_timeout timer = {};
        timer.cb = [](uloop_timeout *) { uloop_end(); };
        uloop_timeout_set(&timer, dies ? 20 : liveness_ms);
        (void)uloop_run();
        EXPECT_EQ(timer.pending, !dies);
        (void)uloop_timeout_cancel(&timer); // it may have run
        ubus_free(ctx);
        ctx = nullptr;
        broker.hang_up();
    }
}

TEST_F(ubus, callback_may_be_called_by_hand)
{
    broker.play([this] {
        broker.take_up();
        broker.send_bytes(recorded("24"));
        broker.expect(recorded("25") + recorded("26"));
        broker.hang_up();
    });
    ASSERT_NO_FATAL_FAILURE(publish());
    EXPECT_EQ(uloop_fd_delete(&ctx->sock), 0);
    while (losses == 0) {
        pollfd readable = {.fd = ctx->sock.fd, .events = POLLIN, .revents = 0};
        ASSERT_EQ(poll(&readable, 1, liveness_ms), 1);
        ctx->sock.cb(&ctx->sock, ULOOP_READ);
    }
    EXPECT_EQ(calls.size(), 1U);
}

TEST_F(ubus, descriptor_that_comes_along_is_closed)
{
    const int passed = memfd_create("passed", MFD_CLOEXEC);
    ASSERT_GE(passed, 0);
    const auto copies = [] {
        int found = 0;
        for (const auto &entry : fs::directory_iterator("/proc/self/fd")) {
            std::error_code gone; // another thread's, closed meanwhile
            if (fs::read_symlink(entry.path(), gone).string().find("memfd:passed") != std::string::npos)
                found++;
        }
        return found;
    };
    broker.play([this, passed] {
        broker.take_up();
        broker.send_descriptor(recorded("24"), passed);
        broker.expect(recorded("25") + recorded("26"));
        broker.hang_up();
    });
    ASSERT_NO_FATAL_FAILURE(publish());
    int during = 0;
    beforeReply = [&] { during = copies(); };
    run_loop();
    EXPECT_EQ(during, 1) << "the sender's own";
    close(passed);
}

// Answers a call when the broker has gone: by then it has hung up, or is about to.
static void reply_to_the_gone(ubus_context *ctx)
{
    beforeReply = [ctx] {
        pollfd gone = {.fd = ctx->sock.fd, .events = 0, .revents = 0};
        EXPECT_EQ(poll(&gone, 1, liveness_ms), 1);
    };
    run_loop();
}

TEST_F(ubus, reply_to_a_broker_that_has_gone_fails)
{
    broker.play([this] {
        broker.take_up();
        broker.send_bytes(recorded("24"));
        broker.hang_up();
    });
    ASSERT_NO_FATAL_FAILURE(publish());
    reply_to_the_gone(ctx);
    EXPECT_EQ(replyStatus, UBUS_STATUS_NO_DATA);
    EXPECT_EQ(losses, 1);
}

TEST_F(ubus, reply_to_a_broker_that_has_gone_ends_the_process_unless_the_signal_is_ignored)
{
    const auto scene = [this] {
        broker.play([this] {
            broker.take_up();
            broker.send_bytes(recorded("24"));
            broker.hang_up();
        });
        publish();
        signal(SIGPIPE, SIG_DFL);
        reply_to_the_gone(ctx);
    };
    EXPECT_EXIT(scene(), testing::KilledBySignal(SIGPIPE), "");
}

TEST_F(ubus, failed_connect_has_taken_the_signals)
{
    const auto disposition = [](int number) {
        struct sigaction action = {};
        EXPECT_EQ(sigaction(number, nullptr, &action), 0);
        return action.sa_handler;
    };
    EXPECT_EQ(ubus_connect((broker.path() + "x").c_str()), nullptr);
    for (const int number : {SIGINT, SIGTERM, SIGCHLD})
        EXPECT_NE(disposition(number), SIG_DFL) << number;
    EXPECT_EQ(disposition(SIGPIPE), SIG_IGN);
    uloop_done();
    for (const int number : {SIGINT, SIGTERM, SIGCHLD})
        EXPECT_EQ(disposition(number), SIG_DFL) << number;
}

TEST_F(ubus, registration_is_not_interrupted)
{
    broker.play([this] {
        broker.greet();
        broker.expect(recorded("02"));
        EXPECT_EQ(kill(getpid(), SIGTERM), 0);
        broker.send_bytes(recorded("03") + recorded("04"));
        (void)broker.receive_bytes(1);
    });
    ASSERT_NO_FATAL_FAILURE(publish());
    ubus_free(ctx);
    ctx = nullptr;
}

TEST_F(ubus, context_may_be_freed_without_the_loop)
{
    broker.play([this] {
        broker.take_up();
        broker.expect_end();
    });
    ASSERT_NO_FATAL_FAILURE(publish());
    uloop_done();
    ubus_free(ctx);
    ctx = nullptr;
}

TEST(ubus_status, has_a_text)
{
    EXPECT_STREQ(ubus_strerror(UBUS_STATUS_OK), "Success");
    EXPECT_STREQ(ubus_strerror(UBUS_STATUS_NO_DATA), "No response");
    EXPECT_STREQ(ubus_strerror(UBUS_STATUS_CONNECTION_FAILED), "Connection failed");
    EXPECT_STREQ(ubus_strerror(UBUS_STATUS_SYSTEM_ERROR), "System error");
    EXPECT_STREQ(ubus_strerror(14), "Unknown error: 14");
    EXPECT_STREQ(ubus_strerror(-1), "Unknown error: -1");
}
