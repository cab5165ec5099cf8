// The object database's subscription side: world writes pushed to the
// connection in order, with the record as it was and as it is; the
// connection's descriptor and its epoll control; refusals.
#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include <ostream>
#include <string>
#include <vector>

#include "db.h"
#include "platform/control.h"
#include "platform/world.hpp"

namespace {

// What one callback saw, read through the table's getters.
struct Seen {
    uint32_t type = 0;
    uint32_t newKey = 0xFFFFFFFFU;  // ifIndex or slot of the new record, when there is one
    uint32_t oldKey = 0xFFFFFFFFU;
    uint32_t newValue = 0xFFFFFFFFU;  // on_board or Register_status
    uint32_t oldValue = 0xFFFFFFFFU;
    uint32_t newValueRet = 0;
    uint32_t oldValueRet = 0;
    void *userCallback = nullptr;

    bool operator==(const Seen &) const = default;
};

void PrintTo(const Seen &s, std::ostream *os)
{
    *os << "{type " << s.type << ", key " << s.newKey << " was " << s.oldKey << ", value " << s.newValue << " (read "
        << s.newValueRet << ") was " << s.oldValue << " (read " << s.oldValueRet << "), user " << s.userCallback << "}";
}

using Getter = uint32_t (*)(DB_OBJ_S *, uint32_t *);

std::vector<Seen> g_seen;
std::vector<std::pair<DB_OBJ_S *, Getter>> g_objectsSeen;  // with their key's getter
std::vector<std::pair<uint32_t, uint32_t>> g_epollCalls;   // (fd, op)

uint32_t EpollCtrl(uint32_t fd, uint32_t op)
{
    g_epollCalls.emplace_back(fd, op);
    return 0;
}

// Records a change of the table whose key and value GetKey and GetValue read.
template <Getter GetKey, Getter GetValue>
void OnChange(DB_SUB_CONN_S *, const DB_SUB_CHANGE_S *change, void *, void *userCallback)
{
    Seen s;
    s.type = change->changeType;
    s.userCallback = userCallback;
    if (change->newObj != nullptr) {
        EXPECT_EQ(GetKey(change->newObj, &s.newKey), DB_OK);
        s.newValueRet = GetValue(change->newObj, &s.newValue);
        g_objectsSeen.emplace_back(change->newObj, GetKey);
    }
    if (change->oldObj != nullptr) {
        EXPECT_EQ(GetKey(change->oldObj, &s.oldKey), DB_OK);
        s.oldValueRet = GetValue(change->oldObj, &s.oldValue);
        g_objectsSeen.emplace_back(change->oldObj, GetKey);
    }
    g_seen.push_back(s);
}
constexpr DB_SUB_CALLBACK_FN OnIf = OnChange<db_get_if_ifindex, db_get_if_on_board>;
constexpr DB_SUB_CALLBACK_FN OnBoard = OnChange<db_get_devm_Slot_ID, db_get_devm_Register_status>;

DB_CONN_PARAM_S Params(const char *locator = DB_SUB_SERVER_LOCATOR)
{
    DB_CONN_PARAM_S p = {};
    p.serverLocator = locator;
    p.userName = "test";
    return p;
}

// Describes and makes one subscription on the connection.
DB_SUB_S *Subscribe(DB_SUB_CONN_S *conn, bool devm, uint32_t events, DB_SUB_CALLBACK_FN callback, void *user)
{
    DB_OBJ_S *obj = nullptr;
    EXPECT_EQ(devm ? db_create_devm_obj(7, 0, &obj) : db_create_if_obj(7, 0, &obj), DB_OK);
    EXPECT_EQ(db_sub_add_event(obj, events), DB_OK);
    EXPECT_EQ(db_sub_add_field(obj, devm ? "devm" : "if", devm ? "Register_status" : "on_board", 0, 0, 0), DB_OK);
    EXPECT_EQ(db_sub_add_push_op(obj, DB_SUB_PUSH_OBJECT), DB_OK);
    EXPECT_EQ(db_sub_reg_callback(obj, callback, user), DB_OK);
    DB_SUB_S *sub = nullptr;
    EXPECT_EQ(db_sub_with_conn(conn, obj, &sub), DB_OK);
    EXPECT_EQ(devm ? db_release_devm_object(obj) : db_release_if_object(obj), DB_OK);
    return sub;
}

bool Readable(uint32_t fd)
{
    pollfd p = {static_cast<int>(fd), POLLIN, 0};
    return poll(&p, 1, 0) == 1;
}

platform::IfRecord Port(uint32_t ifIndex, bool onBoard)
{
    platform::IfRecord r;
    r.name = "GE0/0/" + std::to_string(ifIndex);
    r.ifIndex = ifIndex;
    r.onBoard = onBoard;
    return r;
}

class DbSub : public testing::Test {
protected:
    void SetUp() override
    {
        platform::world::Reset();
        PLAT_FailClearAll();
        g_seen.clear();
        g_objectsSeen.clear();
        g_epollCalls.clear();
    }
};

}  // namespace

TEST_F(DbSub, WorldWritesArriveInOrderWithTheRecordBeforeAndAfter)
{
    platform::world::IfPut(Port(5, true));  // before any connection: not pushed
    DB_CONN_PARAM_S params = Params();
    DB_SUB_CONN_S *conn = nullptr;
    ASSERT_EQ(db_create_sub_connect(&params, EpollCtrl, &conn), DB_OK);
    ASSERT_EQ(g_epollCalls.size(), 1U);
    EXPECT_EQ(g_epollCalls[0].second, DB_EPOLL_CTRL_ADD);
    const uint32_t fd = g_epollCalls[0].first;
    int user = 0;
    ASSERT_NE(Subscribe(conn, false, DB_CHANGE_CREATE | DB_CHANGE_UPDATE | DB_CHANGE_DELETE, OnIf, &user), nullptr);
    // Board deletes are not asked for.
    ASSERT_NE(Subscribe(conn, true, DB_CHANGE_CREATE | DB_CHANGE_UPDATE, OnBoard, nullptr), nullptr);
    EXPECT_FALSE(Readable(fd));

    ASSERT_TRUE(platform::world::IfSetOnBoard(5, false));
    platform::world::IfPut(Port(6, true));
    ASSERT_TRUE(platform::world::IfRemove(6));
    platform::world::BoardPut({1, 3, std::nullopt});
    platform::world::BoardPut({1, 3, platform::kBoardRegistered});
    ASSERT_TRUE(platform::world::BoardRemove(1, 3));
    EXPECT_FALSE(platform::world::IfSetOnBoard(99, true));  // no such interface, nothing pushed
    EXPECT_TRUE(Readable(fd));
    ASSERT_EQ(db_handle_event(fd), DB_OK);
    EXPECT_FALSE(Readable(fd));

    const uint32_t none = 0xFFFFFFFFU;
    const std::vector<Seen> expected = {
        // type, new key, old key, new value, old value, reads of the new and old value
        {DB_CHANGE_UPDATE, 5, 5, 0, 1, DB_OK, DB_OK, &user},
        {DB_CHANGE_CREATE, 6, none, 1, none, DB_OK, DB_OK, &user},
        {DB_CHANGE_DELETE, none, 6, none, 1, DB_OK, DB_OK, &user},
        // A board whose state was never reported has no value.
        {DB_CHANGE_CREATE, 3, none, none, none, DB_NO_VALUE, DB_OK, nullptr},
        {DB_CHANGE_UPDATE, 3, 3, 1, none, DB_OK, DB_NO_VALUE, nullptr},
    };
    EXPECT_EQ(g_seen, expected);
    // The change's objects were the library's, gone after the callback.
    uint32_t key = 0;
    for (const auto &[obj, getKey] : g_objectsSeen) {
        EXPECT_EQ(getKey(obj, &key), DB_ERR_PARAM);
    }

    // Disconnecting takes the descriptor out of the caller's loop; later
    // writes reach no one.
    ASSERT_EQ(db_disconnect(conn), DB_OK);
    ASSERT_EQ(g_epollCalls.size(), 2U);
    EXPECT_EQ(g_epollCalls[1], std::make_pair(fd, DB_EPOLL_CTRL_DEL));
    platform::world::IfSetOnBoard(5, true);
    EXPECT_EQ(db_handle_event(fd), DB_ERR_NO_CONN);
    EXPECT_EQ(db_disconnect(conn), DB_ERR_NO_CONN);
}

// An epoll set refusing the descriptor and the injected failures of the
// connection, the subscription and the handling are the module's db watch
// suite's (db_watch_test.cpp), which checks what the agent makes of each.
TEST_F(DbSub, Refusals)
{
    DB_SUB_CONN_S *conn = nullptr;
    DB_CONN_PARAM_S wrong = Params("shm:elsewhere");
    EXPECT_EQ(db_create_sub_connect(&wrong, EpollCtrl, &conn), DB_ERR_NO_SERVER);
    EXPECT_EQ(db_create_sub_connect(nullptr, EpollCtrl, &conn), DB_ERR_PARAM);
    DB_CONN_PARAM_S params = Params();
    EXPECT_EQ(db_create_sub_connect(&params, nullptr, &conn), DB_ERR_PARAM);
    ASSERT_EQ(db_create_sub_connect(&params, EpollCtrl, &conn), DB_OK);

    // Describing a subscription: only known fields of the object's own
    // table, change types and the whole-object push; a callback is needed.
    DB_OBJ_S *obj = nullptr;
    ASSERT_EQ(db_create_if_obj(7, 0, &obj), DB_OK);
    EXPECT_EQ(db_sub_add_field(obj, "devm", "on_board", 0, 0, 0), DB_ERR_PARAM);
    EXPECT_EQ(db_sub_add_field(obj, "if", "Register_status", 0, 0, 0), DB_ERR_PARAM);
    EXPECT_EQ(db_sub_add_event(obj, 8), DB_ERR_PARAM);
    EXPECT_EQ(db_sub_add_push_op(obj, 0x1234), DB_ERR_PARAM);
    EXPECT_EQ(db_sub_reg_callback(obj, nullptr, nullptr), DB_ERR_PARAM);
    DB_SUB_S *sub = nullptr;
    EXPECT_EQ(db_sub_add_event(obj, DB_CHANGE_UPDATE), DB_OK);
    EXPECT_EQ(db_sub_with_conn(conn, obj, &sub), DB_ERR_PARAM);  // no callback yet
    EXPECT_EQ(db_sub_reg_callback(obj, OnIf, nullptr), DB_OK);
    EXPECT_EQ(db_sub_with_conn(nullptr, obj, &sub), DB_ERR_PARAM);
    EXPECT_EQ(db_release_if_object(obj), DB_OK);
    // A plain read object describes no subscription.
    ASSERT_EQ(db_create_if_object(&obj), DB_OK);
    EXPECT_EQ(db_sub_add_event(obj, DB_CHANGE_UPDATE), DB_ERR_PARAM);
    EXPECT_EQ(db_sub_with_conn(conn, obj, &sub), DB_ERR_PARAM);
    EXPECT_EQ(db_release_if_object(obj), DB_OK);

    // Closing the pool as the module does is its db watch suite's
    // (EpollRefusalFailsTheConnectionAndClosingReportsEachStep).
    EXPECT_EQ(db_close_connection_pool("shm:elsewhere", "test", 0), DB_ERR_NO_SERVER);
    EXPECT_EQ(db_set_current_server_locator(nullptr), DB_ERR_PARAM);
    EXPECT_EQ(db_disconnect(conn), DB_OK);
}
