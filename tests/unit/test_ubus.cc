// The bus library's stand-in against a broker that says what was recorded from a real one.
#include <libubus.h>

#include <gtest/gtest.h>

#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

#include <arpa/inet.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "tests/unit/hex.h"

namespace {

constexpr int liveness_ms = 10'000;
constexpr char path[] = "/tmp/test_ubus.sock";

// Recorded messages by the beginning of their files' names, their numbers.
std::string recorded(const std::vector<std::string> &numbers)
{
    std::string all;
    for (const std::string &number : numbers) {
        const size_t before = all.size();
        for (const auto &entry : std::filesystem::directory_iterator(TEST_DATA_DIR "/ubus")) {
            std::ifstream file(entry.path(), std::ios::binary);
            if (entry.path().filename().string().starts_with(number + "-"))
                all.append(std::istreambuf_iterator<char>(file), {});
        }
        EXPECT_GT(all.size(), before) << "no record " << number;
    }
    return all;
}

// A message; the header is type, sequence number and peer.
std::string message(const std::string &header, const std::string &attributes)
{
    const std::string content = from_hex(attributes);
    const uint32_t length = htonl(static_cast<uint32_t>(content.size() + 4));
    return from_hex(header) + std::string(reinterpret_cast<const char *>(&length), 4) + content;
}

// The attributes of a call of get_state, by the object's recorded id, and what may answer one.
const std::string ours = " 03000008 c98f137a ";
const std::string get_state_name = " 0400000e 6765745f 73746174 65000000 ";
const std::string no_arguments = " 07000004 ";
std::string status(const std::string &header, const std::string &code, const std::string &object = ours)
{
    return message(header, "01000008 " + code + object);
}

// The broker's end of the socket, played by a thread. Every wait is bounded, so that a client that does not
// send what it should fails the test.
class Broker {
public:
    Broker()
    {
        (void)unlink(path);
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        strcpy(address.sun_path, path);
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
    }

    void play(std::function<void()> script)
    {
        finish();
        thread = std::thread(std::move(script));
    }
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
    void send_bytes(std::string bytes, size_t piece = SIZE_MAX)
    {
        for (; !bytes.empty(); bytes.erase(0, piece)) {
            if (send(client, bytes.data(), std::min(piece, bytes.size()), MSG_NOSIGNAL) < 0)
                return;
        }
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
        send_bytes(recorded({"01"}));
    }
    // Greets, and answers the registration; as recorded, unless told otherwise.
    void take_up(const std::string &answer = recorded({"03", "04"}), size_t piece = SIZE_MAX)
    {
        greet();
        expect(recorded({"02"}));
        send_bytes(answer, piece);
    }

private:
    static void set_patience(int fd)
    {
        const timeval time = {liveness_ms / 1000, 0};
        EXPECT_EQ(setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &time, sizeof(time)), 0);
        EXPECT_EQ(setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &time, sizeof(time)), 0);
    }

    int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    int client = -1;
    std::thread thread;
};

// An object such as the daemon publishes.
const blobmsg_policy arguments[] = {
    {"name", BLOBMSG_TYPE_STRING},
    {"dev", BLOBMSG_TYPE_STRING},
    {"status", BLOBMSG_TYPE_STRING},
};

bool has_interfaces;
std::vector<std::string> calls; // names and what was given
int replyStatus;
std::function<void()> beforeReply;
std::function<void()> whenLost;
int losses;

int update_if(ubus_context *, ubus_object *, ubus_request_data *, const char *method, blob_attr *msg)
{
    blob_attr *tb[std::size(arguments)];
    (void)blobmsg_parse(arguments, std::size(arguments), tb, blob_data(msg),
                        static_cast<unsigned int>(blob_len(msg)));
    std::string call = method;
    for (blob_attr *attr : tb) {
        if (attr == nullptr)
            return UBUS_STATUS_INVALID_ARGUMENT;
        call += std::string(" ") + blobmsg_get_string(attr);
    }
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
    for (const auto &[dev, state] : {std::pair{"eth0.2", "on"}, std::pair{"ppp-wan1", "off"}}) {
        void *const table = blobmsg_open_nested(&b, dev, false);
        blobmsg_add_string(&b, "dev", dev);
        blobmsg_add_string(&b, "status", state);
        blob_nest_end(&b, table);
    }
    replyStatus = ubus_send_reply(ctx, req, has_interfaces ? b.head : nullptr);
    blob_buf_free(&b);
    return UBUS_STATUS_OK;
}

const ubus_method methods[] = {
    UBUS_METHOD("update_if", update_if, arguments),
    UBUS_METHOD_NOARG("get_state", get_state),
};

void end_loop(uloop_timeout *)
{
    uloop_end();
}

void run_loop()
{
    uloop_timeout guard = {};
    guard.cb = end_loop;
    uloop_timeout_set(&guard, liveness_ms);
    (void)uloop_run();
    EXPECT_EQ(uloop_timeout_cancel(&guard), 0) << "nothing ended the loop";
}

using Disposition = void (*)(int);

class ubus : public testing::Test {
protected:
    ubus()
    {
        for (const int number : {SIGINT, SIGTERM, SIGCHLD, SIGPIPE})
            signal(number, SIG_DFL);
        has_interfaces = true;
        calls.clear();
        replyStatus = -1;
        beforeReply = whenLost = nullptr;
        losses = 0;
        object.name = "dnsproxy";
        object.type = &type;
        object.methods = methods;
        object.n_methods = ARRAY_SIZE(methods);
    }
    ~ubus() override
    {
        uloop_done();
        disconnect();
    }

    void connect()
    {
        losses = 0;
        type.id = 0;
        ctx = ubus_connect(path);
        ASSERT_NE(ctx, nullptr);
        ctx->connection_lost = [](ubus_context *) {
            ++losses;
            if (whenLost)
                whenLost();
            else
                uloop_end();
        };
        ubus_add_uloop(ctx);
        EXPECT_TRUE(ctx->sock.registered);
        EXPECT_EQ(signal(SIGPIPE, SIG_IGN), SIG_IGN) << "a broker that has gone ends nobody";
        EXPECT_NE(signal(SIGTERM, SIG_DFL), SIG_DFL) << "the loop ends by it";
    }
    void disconnect()
    {
        if (ctx != nullptr)
            ubus_free(ctx);
        ctx = nullptr;
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
    std::vector<std::string> call, answers;
} conversation[] = {
    {{"24"}, {"25", "26"}}, {{"31"}, {"32"}}, {{"34"}, {"35"}}, {{"36"}, {"37"}},
    {{"38"}, {"39"}},       {{"40"}, {"41"}}, {{"42"}, {"43"}}, {{"44"}, {"45"}},
};
const std::vector<std::string> calls_of_conversation = {"get_state", "update_if wan eth0.2 on",
                                                        "update_if  ppp-wan1 off"};

} // namespace

TEST_F(ubus, the_loop_calls_for_what_is_left_to_read_and_for_nothing_else)
{
    static std::string seen;
    seen.clear();
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
    uloop_fd reader = {};
    reader.fd = ends[0];
    reader.cb = [](uloop_fd *r, unsigned int events) {
        char byte = '-';
        (void)!read(r->fd, &byte, 1);
        seen += events == ULOOP_READ ? byte : '?';
        if (seen.size() == 2)
            uloop_end();
    };
    ASSERT_EQ(uloop_init(), 0);
    ASSERT_EQ(uloop_fd_add(&reader, ULOOP_READ), 0);
    ASSERT_EQ(write(ends[1], "ab", 2), 2);
    run_loop();
    EXPECT_EQ(seen, "ab");
    EXPECT_EQ(uloop_fd_delete(&reader), 0);
    close(ends[0]);
    close(ends[1]);
}

TEST_F(ubus, the_loop_leaves_signals_that_others_have_taken)
{
    constexpr int numbers[] = {SIGINT, SIGTERM, SIGCHLD, SIGPIPE};
    for (const int number : numbers)
        signal(number, SIG_IGN);
    EXPECT_EQ(uloop_init(), 0);
    for (const int number : numbers)
        EXPECT_EQ(signal(number, SIG_IGN), SIG_IGN) << number;
    uloop_done();
    for (const int number : numbers)
        EXPECT_EQ(signal(number, SIG_DFL), SIG_IGN) << number;
}

TEST_F(ubus, sends_what_was_recorded)
{
    for (const size_t piece : {SIZE_MAX, size_t{1}}) {
        SCOPED_TRACE(piece);
        calls.clear();
        broker.play([this, piece] {
            broker.take_up(recorded({"03", "04"}), piece);
            for (const auto &row : conversation) {
                SCOPED_TRACE(row.call[0]);
                broker.send_bytes(recorded(row.call), piece);
                broker.expect(recorded(row.answers));
            }
            broker.hang_up();
        });
        serve();
        broker.finish();
        EXPECT_EQ(calls, calls_of_conversation);
        EXPECT_EQ(object.id, 0xc98f137a);
        EXPECT_EQ(type.id, 0x01b4231eU);
        EXPECT_EQ(memcmp(&ctx->local_id, recorded({"01"}).data() + 4, 4), 0);
        disconnect();
    }
    has_interfaces = false;
    broker.play([this] {
        broker.take_up(message("00020001 00000000", "03000008 8bdf06ee 05000008 00000007") +
                       recorded({"04"}));
        broker.send_bytes(recorded({"80"}));
        broker.expect(recorded({"81", "82"}));
        broker.hang_up();
    });
    serve();
}

// Calls that come with the answer to ubus_add_object are made before it returns, unless they are more than
// the queue holds.
TEST_F(ubus, calls_that_come_during_registration_wait_for_it)
{
    const std::string big = message("00050002 00000001", ours + get_state_name + "07000004 63080000" +
                                                             std::string(0x80000 * 2 - 8, '0'));
    broker.play([this, big] {
        std::string sent, expected;
        for (const auto &row : conversation) {
            sent += recorded(row.call);
            expected += recorded(row.answers);
        }
        broker.take_up(recorded({"03"}) + sent + recorded({"04"}));
        broker.expect(expected);
        broker.take_up(recorded({"03"}) + big + big + big + big + recorded({"04"}));
        (void)broker.receive_bytes(1);
    });
    ASSERT_NO_FATAL_FAILURE(publish());
    EXPECT_EQ(calls, calls_of_conversation);
    disconnect();
    calls.clear();
    ASSERT_NO_FATAL_FAILURE(publish());
    EXPECT_EQ(calls.size(), 1U);
    disconnect();
}

TEST_F(ubus, reconnect_registers_again)
{
    broker.play([this] {
        broker.take_up();
        broker.accept_client();
        broker.send_bytes(recorded({"70"}));
        broker.expect(recorded({"71"}));
        broker.send_bytes(recorded({"72", "73"}));
        const std::string new_id = "03000008 ec09a9f7";
        broker.send_bytes(message("00050003 00000009", new_id + get_state_name + no_arguments));
        broker.expect(from_hex("00020003 00000009 00000084" + new_id) + recorded({"25"}).substr(20));
        broker.expect(status("00010003 00000009", "00000000", new_id));
        broker.hang_up();
    });
    serve();
    EXPECT_EQ(ubus_reconnect(ctx, path), UBUS_STATUS_OK);
    EXPECT_FALSE(ctx->sock.registered);
    EXPECT_FALSE(ctx->sock.eof);
    EXPECT_EQ(object.id, 0xec09a9f7);
    EXPECT_EQ(type.id, 0x79d7b926U);
    ubus_add_uloop(ctx);
    run_loop();
    EXPECT_EQ(losses, 2);
}

TEST_F(ubus, failed_reconnect_tells_what_failed)
{
    broker.play([this] {
        broker.take_up();
        broker.accept_client();
        broker.hang_up();
    });
    serve();
    for (const std::string &wrong : {std::string(path) + "x", std::string(108, '/')})
        EXPECT_EQ(ubus_reconnect(ctx, wrong.c_str()), UBUS_STATUS_CONNECTION_FAILED);
    EXPECT_EQ(ctx->sock.fd, -1);
    EXPECT_EQ(ubus_reconnect(ctx, path), UBUS_STATUS_UNKNOWN_ERROR);
    // The number is that of a descriptor that is closed; the next call would close it again.
    EXPECT_GE(ctx->sock.fd, 0);
    EXPECT_EQ(fcntl(ctx->sock.fd, F_GETFD), -1);
    ctx->sock.fd = -1;
    EXPECT_EQ(ubus_add_object(ctx, &object), UBUS_STATUS_CONNECTION_FAILED);
    EXPECT_EQ(losses, 1);
}

TEST_F(ubus, registration_tells_how_it_failed)
{
    static const struct {
        const char *name;
        std::string answer;
        bool reconnects;
        int expected;
    } rows[] = {
        {"refused", status("00010001 00000000", "00000002", ""), false, UBUS_STATUS_INVALID_ARGUMENT},
        {"no_id", status("00010001 00000000", "00000000", ""), false, UBUS_STATUS_NO_DATA},
        {"lost", "", false, UBUS_STATUS_CONNECTION_FAILED},
        {"lost_and_back", "", true, UBUS_STATUS_TIMEOUT},
        {"answers_to_others",
         status("00010002 00000000", "00000000", "") + status("00010001 00000001", "00000000", ""), false,
         UBUS_STATUS_CONNECTION_FAILED},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        broker.play([this, &row] {
            broker.take_up(row.answer);
            if (row.reconnects)
                broker.greet();
            broker.hang_up();
        });
        ASSERT_NO_FATAL_FAILURE(connect());
        whenLost = [this, &row] {
            if (row.reconnects && losses == 1) {
                EXPECT_EQ(ubus_reconnect(ctx, path), UBUS_STATUS_OK);
            }
        };
        EXPECT_EQ(ubus_add_object(ctx, &object), row.expected);
        EXPECT_EQ(object.id, 0U);
        EXPECT_EQ(losses, row.expected >= UBUS_STATUS_TIMEOUT ? 1 : 0);
        disconnect();
    }
}

TEST_F(ubus, greeting_must_be_one)
{
    static constexpr struct {
        const char *greeting;
        bool is_good;
    } rows[] = {
        {"00000000 01020304 00000004", true},
        {"00000000 01020304 0000000c 01000008 00000000", true},
        {"00000000 00000000 00000004", false}, // no id
        {"00000000 01000000 00000004", false}, // the broker's own
        {"00020000 01020304 00000004", false}, // no greeting
        {"01000000 01020304 00000004", false}, // of another version
        {"00000000 01020304 00000003", false}, // shorter than its length
        {"00000000 01020304 00100001", false}, // longer than a message
        {"00000000 01020304 0000", false},
        {"00000000 01020304 00000100 01000008", false},
        {"", false},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.greeting);
        broker.play([this, &row] {
            broker.accept_client();
            broker.send_bytes(from_hex(row.greeting));
            broker.hang_up();
        });
        ctx = ubus_connect(path);
        EXPECT_EQ(ctx != nullptr, row.is_good);
        disconnect();
    }
}

TEST_F(ubus, answers_to_unusual_messages_and_an_end_at_one_that_is_too_long)
{
    static const std::string invoke = "00050009 0a0b0c0d", answered = "00010009 0a0b0c0d";
    static const std::string nobody = "00010000 00000000", no_object = "03000008 00000000";
    static const std::string reply = from_hex("00020009 0a0b0c0d 00000084") + recorded({"25"}).substr(12);
    static const std::string done = status(answered, "00000000"), invalid = status(answered, "00000002");
    static const std::string no_method = status(nobody, "00000002", no_object);
    static const std::string get = get_state_name, data = no_arguments;
    static const size_t padding = (1 << 20) - 4 - from_hex(ours + get + data).size();
    static const struct {
        const char *name;
        std::string bytes, answer;
    } rows[] = {
        {"other_order", message(invoke, data + get + ours), reply + done},
        {"unknown", message(invoke, "0f000005 01000000 7f000004 00000004" + ours + get + data), reply + done},
        {"later_of_two", message(invoke, "03000008 00000009" + ours + get + data), reply + done},
        {"rest_of_3_bytes", message(invoke, ours + get + data + "000000"), reply + done},
        {"object_id_of_3_bytes", message(invoke, "03000007 c98f1300" + get + data), ""},
        {"no_object_id", message(invoke, get + data), ""},
        {"unknown_object", message(invoke, "03000008 00000009" + get + data),
         status(nobody, "00000004", no_object)},
        {"no_method", message(invoke, ours + data), no_method},
        {"method_without_nul", message(invoke, ours + "0400000d 6765745f 73746174 65000000" + data),
         no_method},
        {"length_too_short", message(invoke, ours + "04000003" + data), no_method},
        {"length_too_long", message(invoke, ours + get + "07000008"), invalid},
        {"bad_arguments",
         message(invoke, ours + "0400000e 75706461 74655f69 66000000 0700000c 83000040 ffffffff"), invalid},
        {"no_reply", message(invoke, ours + get + "0a000005 01000000" + data), reply},
        {"no_reply_0", message(invoke, ours + get + "0a000005 00000000" + data), reply + done},
        {"longest", message(invoke, ours + get + data + std::string(padding * 2, '0')), reply + done},
        {"ping", message("00030001 00000000", ""), ""},
        {"unknown_type", message("00ff0001 00000000", ours), ""},
        {"other_version", from_hex("01050009 0a0b0c0d 00000014"), ""},
        {"length_below_4", from_hex("00050009 0a0b0c0d 00000003"), ""},
    };
    broker.play([this] {
        broker.take_up();
        for (const auto &row : rows) {
            SCOPED_TRACE(row.name);
            broker.send_bytes(row.bytes + recorded({"24"}));
            broker.expect(row.answer + recorded({"25", "26"}));
        }
        broker.send_bytes(from_hex(invoke + "00100001")); // longer than the longest
        broker.expect_end();
    });
    serve();
    disconnect();
}
