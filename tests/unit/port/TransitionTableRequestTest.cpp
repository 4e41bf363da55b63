// What SDCM and media ask for, timers, and the engineering menu.
#include <algorithm>

#include "TransitionTable.h"

namespace test {
namespace {

using namespace dcm::usb;

// Neither a phone that nobody uses yet nor the mode of the request.
const States kNoAA = {STATE_DETACH,       STATE_CP_SUPPORT,  STATE_AA_CHANGING,  STATE_ML_CHANGING,
                      STATE_CP_CHANGING,  STATE_CL_CHANGING, STATE_RESETTING,    STATE_ML,
                      STATE_CP,           STATE_CL,          STATE_AA_RESETTING, STATE_ML_RESETTING,
                      STATE_CP_RESETTING, STATE_CL_RESETTING};
const States kNoACL = {STATE_DETACH,       STATE_CP_SUPPORT,  STATE_AA_CHANGING,  STATE_ML_CHANGING,
                       STATE_CP_CHANGING,  STATE_CL_CHANGING, STATE_RESETTING,    STATE_AA,
                       STATE_ML,           STATE_CP,          STATE_AA_RESETTING, STATE_ML_RESETTING,
                       STATE_CP_RESETTING, STATE_CL_RESETTING};
const States kNoML = {STATE_DETACH,       STATE_CP_SUPPORT,   STATE_AA_CHANGING, STATE_ML_CHANGING,
                      STATE_CP_CHANGING,  STATE_CL_CHANGING,  STATE_RESETTING,   STATE_AA,
                      STATE_ML,           STATE_CP,           STATE_CL,          STATE_AA_RESETTING,
                      STATE_ML_RESETTING, STATE_CP_RESETTING, STATE_CL_RESETTING};
const States kNoCP = {STATE_DETACH,       STATE_ATTACH,       STATE_AA_CHANGING, STATE_ML_CHANGING,
                      STATE_CP_CHANGING,  STATE_CL_CHANGING,  STATE_RESETTING,   STATE_AA,
                      STATE_ML,           STATE_CP,           STATE_CL,          STATE_AA_RESETTING,
                      STATE_ML_RESETTING, STATE_CP_RESETTING, STATE_CL_RESETTING};
const States kNoICL = {STATE_DETACH,       STATE_AA_CHANGING, STATE_ML_CHANGING,  STATE_CP_CHANGING,
                       STATE_CL_CHANGING,  STATE_RESETTING,   STATE_AA,           STATE_ML,
                       STATE_CP,           STATE_CL,          STATE_AA_RESETTING, STATE_ML_RESETTING,
                       STATE_CP_RESETTING, STATE_CL_RESETTING};
const States kNoReset = {STATE_DETACH,       STATE_ATTACH,      STATE_CP_SUPPORT,   STATE_AA_CHANGING,
                         STATE_ML_CHANGING,  STATE_RESETTING,   STATE_AA_RESETTING, STATE_ML_RESETTING,
                         STATE_CP_RESETTING, STATE_CL_RESETTING};

Step Refuse(int id) {
    return All(
        {Enter(),
         [](Expected& e) { Say(160, Format("port%d %s, so can't change", e.port, StateName(e.state)))(e); },
         TellAsked(id, 1)});
}

Step LookFor(const std::vector<E_DEV_TYPE>& types) {
    Steps steps;
    for (const E_DEV_TYPE type : types)
        steps.push_back(Find(type));
    return All(steps);
}
const Step kLookForPhone = Find(DEV_TYPE_PHONE);
const Step kLookForMtp = LookFor({DEV_TYPE_PHONE, DEV_TYPE_MTP});
const Step kLookForStick = LookFor({DEV_TYPE_PHONE, DEV_TYPE_MTP, DEV_TYPE_STORAGE});

const Step kNoAndroid = Say(160, "android device doesn't exist");
const Step kNoApple = Say(160, "apple device doesn't exist");

// The ids of the request, and those of a phone that is in the list of nodes.
Step OtherIds(const Phone& node) {
    return [=](Expected& e) {
        Say(160,
            Format("vid(%x %x) or pid(%x %x) is different", e.asked.vid, node.vid, e.asked.pid, node.pid))(e);
    };
}

using Request = void (*)(UPortState&, UMsgChMode*);

Deed Ask(Request request) {
    return [request](UPortState& state, const Event& event, unsigned char port) {
        UMsgChMode message = ModeRequest(dcm::MSGID_REQ_AA_MODE, event.asked, port, kAskedDevid);
        request(state, &message);
    };
}

// Also looks at what the request returns: 0 when it was accepted.
template <typename Operation>
Deed AskWithAnswer(Operation operation, const States& accepted) {
    return [=](UPortState& state, const Event& event, unsigned char port) {
        UMsgChMode message = ModeRequest(dcm::MSGID_REQ_CP_MODE, event.asked, port, kAskedDevid);
        const bool is_accepted =
            std::find(accepted.begin(), accepted.end(), state.GetState()) != accepted.end();
        EXPECT_EQ((state.*operation)(&message), is_accepted ? 0 : 1);
    };
}

// One outcome of looking for the phone and starting it: what follows in STATE_ATTACH.
struct Outcome {
    std::string name;
    Phone stored;
    Phone asked;
    std::vector<Phone> nodes;
    std::map<std::string, std::vector<int>> results;
    bool net_node;
    Steps attach;
};

// Android Auto and an Android phone's CarLife differ in ids and operations only.
std::vector<Outcome> AccessoryOutcomes(const char* operation, int id, E_CON_STATE changing,
                                       E_CON_STATE mode) {
    const Step started = All({ToAsked(operation), Arm(39), test::Name(), Go(changing)});
    const Step already = All({ToAsked(operation), TellAsked(id, 0), Go(mode)});
    const Step failed = All({ToAsked(operation), TellAsked(id, 1)});
    const Phone galaxy = WithIds(Android(), 0x04e8, 0x6861);
    const Phone other_maker = WithIds(Android(), 0x0bb4, 0x0c02);
    return {
        {"no node", Android(), Android(), {}, {}, false, {kLookForMtp, kNoAndroid, TellAsked(id, 1)}},
        {"no node but an Apple phone's",
         Apple(),
         Apple(),
         {Apple(), Stick()},
         {},
         false,
         {kLookForMtp, kNoAndroid, TellAsked(id, 1)}},
        {"other product",
         Android(),
         Android(),
         {galaxy},
         {},
         false,
         {kLookForPhone, OtherIds(galaxy), kNoAndroid, TellAsked(id, 1)}},
        {"other vendor",
         Android(),
         Android(),
         {WithIds(Android(), 0x04e9, 0x6860)},
         {},
         false,
         {kLookForPhone, OtherIds(WithIds(Android(), 0x04e9, 0x6860)), kNoAndroid, TellAsked(id, 1)}},
        {"the second phone's ids",
         Android(),
         Mtp(),
         {Android(), Mtp()},
         {},
         false,
         {kLookForPhone, OtherIds(Android()), kNoAndroid, TellAsked(id, 1)}},
        {"starts", Android(), Android(), {Android()}, {{operation, {0}}}, false, {kLookForPhone, started}},
        {"starts an MTP device", Mtp(), Mtp(), {Mtp()}, {{operation, {0}}}, false, {kLookForMtp, started}},
        {"starts another phone than the one that came",
         Android(),
         other_maker,
         {other_maker},
         {{operation, {0}}},
         false,
         {kLookForPhone, started}},
        {"is already started",
         Android(),
         Android(),
         {Android()},
         {{operation, {1}}},
         false,
         {kLookForPhone, already}},
        {"fails", Android(), Android(), {Android()}, {{operation, {-1}}}, false, {kLookForPhone, failed}},
        {"fails strangely",
         Android(),
         Android(),
         {Android()},
         {{operation, {2}}},
         false,
         {kLookForPhone, failed}},
    };
}

std::vector<Event> Requests(const std::string& kind, const Deed& happen, int id, const States& refused,
                            const Rows& others, const std::vector<Outcome>& outcomes) {
    std::vector<Event> events;
    for (const Outcome& outcome : outcomes) {
        Rows rows = {{refused, {Refuse(id)}}, {{STATE_ATTACH}, {Enter(), All(outcome.attach)}}};
        rows.insert(rows.end(), others.begin(), others.end());
        events.push_back({.name = kind + ": " + outcome.name,
                          .memory = {.stored = outcome.stored, .cp = 1},
                          .asked = outcome.asked,
                          .results = outcome.results,
                          .nodes = outcome.nodes,
                          .net_node = outcome.net_node,
                          .happen = happen,
                          .rows = rows});
    }
    return events;
}

TEST_F(TransitionTable, AndroidAutoIsAskedFor) {
    Run(Requests("AA", Ask([](UPortState& state, UMsgChMode* message) { state.ProcessAAMode(message); }), 5,
                 kNoAA, {{{STATE_AA}, {Enter(), Say(128, "already aoap"), TellAsked(5, 0), Go(STATE_AA)}}},
                 AccessoryOutcomes("StartAOAP", 5, STATE_AA_CHANGING, STATE_AA)));
}

TEST_F(TransitionTable, CarLifeOfAnAndroidPhoneIsAskedFor) {
    Run(Requests("ACL", Ask([](UPortState& state, UMsgChMode* message) { state.ProcessACLMode(message); }), 8,
                 kNoACL, {{{STATE_CL}, {Enter(), Say(128, "already aoap"), TellAsked(8, 0), Go(STATE_CL)}}},
                 AccessoryOutcomes("StartCarLifeAOAP", 8, STATE_CL_CHANGING, STATE_CL)));
}

TEST_F(TransitionTable, MirrorLinkIsAskedFor) {
    const char* const start = "StartMirrorLink";
    const Step look_for_net = OnWholePort("FindNetNode");
    const Step command = ToAsked(start);
    const Step twice = All({command, Say(128, "duplicate command"), command});
    const Step started = All({Arm(39), test::Name(), Go(STATE_ML_CHANGING)});
    const Step already = All({TellAsked(6, 0), Go(STATE_ML)});
    const Step failed = TellAsked(6, 1);
    const Step ncm = [](Expected& e) { Say(128, Format("port%d already is ncm mode", e.port))(e); };
    const Phone gadget = WithIds(Android(), 0x0525, 0xa4a0);
    const Phone other = WithIds(Android(), 0x04e8, 0x6861);
    const Steps missing = {kLookForStick, kNoAndroid, failed};
    const std::vector<Outcome> outcomes = {
        {"no node", Android(), Android(), {}, {}, false, missing},
        {"no node, but a network node", Android(), Android(), {}, {}, true, missing},
        {"no node but an Apple phone's", Apple(), Apple(), {Apple()}, {}, false, missing},
        {"other ids",
         Android(),
         Android(),
         {other},
         {},
         false,
         {kLookForPhone, OtherIds(other), kNoAndroid, failed}},
        {"has a network node",
         Android(),
         Android(),
         {Android()},
         {},
         true,
         {kLookForPhone, look_for_net, ncm, already}},
        {"starts",
         Android(),
         Android(),
         {Android()},
         {{start, {0}}},
         false,
         {kLookForPhone, look_for_net, command, started}},
        {"starts an MTP device",
         Mtp(),
         Mtp(),
         {Mtp()},
         {{start, {0}}},
         false,
         {kLookForMtp, look_for_net, command, started}},
        {"starts a storage device",
         Stick(),
         Stick(),
         {Stick()},
         {{start, {0}}},
         false,
         {kLookForStick, look_for_net, command, started}},
        {"is already started",
         Android(),
         Android(),
         {Android()},
         {{start, {1}}},
         false,
         {kLookForPhone, look_for_net, command, already}},
        {"fails",
         Android(),
         Android(),
         {Android()},
         {{start, {-1}}},
         false,
         {kLookForPhone, look_for_net, command, failed}},
        {"fails strangely",
         Android(),
         Android(),
         {Android()},
         {{start, {-9}}},
         false,
         {kLookForPhone, look_for_net, command, failed}},
        {"starts the second time",
         Android(),
         gadget,
         {gadget},
         {{start, {-1, 0}}},
         false,
         {kLookForPhone, look_for_net, twice, started}},
        {"is already started the second time",
         gadget,
         gadget,
         {gadget},
         {{start, {0, 1}}},
         false,
         {kLookForPhone, look_for_net, twice, already}},
        {"fails the second time",
         gadget,
         gadget,
         {gadget},
         {{start, {0, -1}}},
         false,
         {kLookForPhone, look_for_net, twice, failed}},
        {"almost the device that is told twice",
         WithIds(Android(), 0x0525, 0xa4a1),
         WithIds(Android(), 0x0525, 0xa4a1),
         {WithIds(Android(), 0x0525, 0xa4a1)},
         {{start, {0}}},
         false,
         {kLookForPhone, look_for_net, command, started}},
        {"almost its vendor",
         WithIds(Android(), 0x0526, 0xa4a0),
         WithIds(Android(), 0x0526, 0xa4a0),
         {WithIds(Android(), 0x0526, 0xa4a0)},
         {{start, {0}}},
         false,
         {kLookForPhone, look_for_net, command, started}},
    };
    Run(Requests("ML", Ask([](UPortState& state, UMsgChMode* message) { state.ProcessMLMode(message); }), 6,
                 kNoML, {}, outcomes));
}

// --- requests for an Apple phone ---

// The request is about another phone than the one that is stored.
Step WhyDifferent() {
    return [](Expected& e) {
        const Phone& asked = e.asked;
        const Phone& stored = e.memory.stored;
        Say(160,
            Format("why is difference? vid:%x,%x pid:%x,%x ", asked.vid, stored.vid, asked.pid, stored.pid) +
                "serial:" + asked.serial + "," + stored.serial + " devpath:" + asked.devpath + "," +
                stored.devpath)(e);
    };
}

struct AppleOutcome {
    std::string name;
    Phone stored;
    Phone asked;
    std::vector<Phone> nodes;
    bool accepted;
    Steps steps;  // up to the state change or the refusal
};

std::vector<AppleOutcome> AppleOutcomes() {
    const Step look_for_apple = Find(DEV_TYPE_APPLE);
    const Step recorded = All({Say(128, "devid:" + kAskedDevid), test::Name()});
    const Steps found = {look_for_apple};
    const Phone other = WithIds(Apple(), 0x05ac, 0x12a9);
    const Phone other_serial = WithSerial(Apple(), "S9");
    Phone other_path = Apple();
    other_path.devpath = "/devices/usb1/1-1/1-1.1";
    return {
        {"no node", Apple(), Apple(), {}, false, {look_for_apple, kNoApple}},
        {"no node but a shuttle's", Shuttle(), Shuttle(), {Shuttle()}, false, {look_for_apple, kNoApple}},
        {"no node but Android phones'",
         Apple(),
         Android(),
         {Android(), Mtp(), Stick()},
         false,
         {look_for_apple, kNoApple}},
        {"other ids", Apple(), Apple(), {other}, false, {look_for_apple, OtherIds(other), kNoApple}},
        {"found", Apple(), Apple(), {Apple()}, true, {look_for_apple, HostPort(), recorded}},
        {"other serial number",
         Apple(),
         other_serial,
         {Apple()},
         true,
         {look_for_apple, HostPort(), recorded, WhyDifferent()}},
        {"other path",
         Apple(),
         other_path,
         {Apple()},
         true,
         {look_for_apple, HostPort(), recorded, WhyDifferent()}},
        {"other product than stored",
         Apple(),
         other,
         {other},
         true,
         {look_for_apple, HostPort(), recorded, WhyDifferent()}},
        {"other vendor than stored",
         Apple(),
         WithIds(Apple(), 0x05ad, 0x12a8),
         {WithIds(Apple(), 0x05ad, 0x12a8)},
         true,
         {look_for_apple, HostPort(), recorded, WhyDifferent()}},
    };
}

TEST_F(TransitionTable, CarPlayIsAskedFor) {
    std::vector<Event> events;
    for (const AppleOutcome& outcome : AppleOutcomes()) {
        Steps steps = outcome.steps;
        if (outcome.accepted) steps.erase(steps.begin() + 1);  // no numbers of the host port
        const Step end = outcome.accepted ? All({Go(STATE_CP_CHANGING), TellAsked(7, 0)}) : TellAsked(7, 1);
        const States accepted = outcome.accepted ? States{STATE_CP_SUPPORT} : States{};
        events.push_back({.name = "CP: " + outcome.name,
                          .memory = {.stored = outcome.stored, .cp = 1},
                          .asked = outcome.asked,
                          .nodes = outcome.nodes,
                          .happen = AskWithAnswer(&UPortState::ProcessCPMode, accepted),
                          .rows = {{{STATE_CP_SUPPORT}, {Enter(), All(steps), end}}, {kNoCP, {Refuse(7)}}}});
    }
    Run(events);
}

TEST_F(TransitionTable, CarLifeOfAnApplePhoneIsAskedFor) {
    std::vector<Event> events;
    for (const AppleOutcome& outcome : AppleOutcomes()) {
        const Step end = outcome.accepted ? All({Go(STATE_CL_CHANGING), TellAsked(9, 0)}) : TellAsked(9, 1);
        const States accepted = outcome.accepted ? States{STATE_ATTACH, STATE_CP_SUPPORT} : States{};
        events.push_back({.name = "ICL: " + outcome.name,
                          .memory = {.stored = outcome.stored, .cp = 1},
                          .asked = outcome.asked,
                          .nodes = outcome.nodes,
                          .happen = AskWithAnswer(&UPortState::ProcessICLMode, accepted),
                          .rows = {{{STATE_ATTACH, STATE_CP_SUPPORT}, {Enter(), All(outcome.steps), end}},
                                   {kNoICL, {Refuse(9)}}}});
    }
    Run(events);
}

// --- reset ---

// What a reset finds: for each mode the steps behind the line with which it begins.
struct Resets {
    Steps carplay, aa, ml, cl, cl_changing;
};

const Step kResetRefused =
    All({Enter(),
         [](Expected& e) { Say(160, Format("port%d %s, so can't reset", e.port, StateName(e.state)))(e); },
         TellAsked(10, 1)});

Event Reset(const std::string& name, const Phone& stored, const Phone& asked, const std::vector<Phone>& nodes,
            const std::map<std::string, std::vector<int>>& results, const Resets& resets) {
    return {.name = "reset: " + name,
            .memory = {.stored = stored, .cp = 1},
            .asked = asked,
            .results = results,
            .nodes = nodes,
            .happen = Ask([](UPortState& state, UMsgChMode* message) { state.ProcessResetMode(message); }),
            .rows = {
                {{STATE_CP_CHANGING, STATE_CP}, {Enter(), All(resets.carplay)}},
                {{STATE_AA}, {Enter(), All(resets.aa)}},
                {{STATE_ML}, {Enter(), All(resets.ml)}},
                {{STATE_CL}, {Enter(), All(resets.cl)}},
                {{STATE_CL_CHANGING}, {Enter(), All(resets.cl_changing)}},
                {kNoReset, {kResetRefused}},
            }};
}

TEST_F(TransitionTable, AResetIsAskedFor) {
    const Step refused = TellAsked(10, 1);
    const Step remove = OnWholePort("StartRemoveUsb");
    const Step reset_aa = ResetAsked("StartAAPortReset");
    const Step reset_ml = OnUnitPort("StartMLPortReset");
    const Step reset_cp = ResetAsked("StartCPPortReset");
    const Step reset_cl = ResetAsked("StartCLPortReset");
    const auto done = [](E_CON_STATE state) { return All({TellAsked(10, 0), Go(state)}); };

    const Steps carplay = {reset_cp, Arm(41), done(STATE_CP_RESETTING)};
    const Steps carplay_fails = {reset_cp, refused};
    const Steps apple_carlife = {reset_cl, Arm(39), done(STATE_CL_RESETTING)};
    const Steps apple_carlife_fails = {reset_cl, refused};

    const Steps missing = {kLookForMtp, kNoAndroid, refused};
    const Steps ml_missing = {kLookForStick, kNoAndroid, refused};

    const std::map<std::string, std::vector<int>> failures = {{"StartCPPortReset", {-1}},
                                                              {"StartAAPortReset", {-1}},
                                                              {"StartMLPortReset", {-1}},
                                                              {"StartCLPortReset", {-1}}};
    const std::map<std::string, std::vector<int>> positive_failures = {{"StartCPPortReset", {1}},
                                                                       {"StartAAPortReset", {1}},
                                                                       {"StartMLPortReset", {1}},
                                                                       {"StartCLPortReset", {1}}};

    const auto found = [&](const Step& look) {
        return Resets{.carplay = carplay,
                      .aa = {look, remove, reset_aa, done(STATE_AA_RESETTING)},
                      .ml = {look, remove, reset_ml, done(STATE_ML_RESETTING)},
                      .cl = {look, remove, reset_cl, done(STATE_CL_RESETTING)},
                      .cl_changing = {refused}};
    };
    const auto found_and_failed = [&](const Step& look) {
        return Resets{.carplay = carplay_fails,
                      .aa = {look, remove, reset_aa, refused},
                      .ml = {look, remove, reset_ml, refused},
                      .cl = {look, remove, reset_cl, refused},
                      .cl_changing = {refused}};
    };

    std::vector<Event> events = {
        Reset("the phone that came", Android(), Android(), {Android()}, {}, found(kLookForPhone)),
        Reset("its accessory", Android(), Accessory(), {Accessory()}, {}, found(kLookForPhone)),
        Reset("an MTP device", Mtp(), Mtp(), {Mtp()}, {}, found(kLookForMtp)),
        Reset("fails", Android(), Accessory(), {Accessory()}, failures, found_and_failed(kLookForPhone)),
        Reset("fails with a positive number", Android(), Accessory(), {Accessory()}, positive_failures,
              found_and_failed(kLookForPhone)),
        Reset("a phone that the kernel does not forget", Android(), Accessory(), {Accessory()},
              {{"StartRemoveUsb", {-1}}}, found(kLookForPhone)),
        Reset("no node", Android(), Accessory(), {}, {}, {carplay, missing, ml_missing, missing, {refused}}),
    };

    const Step other = OtherIds(Accessory());
    const Steps other_phone = {kLookForPhone, other, kNoAndroid, refused};
    events.push_back(Reset("another phone's ids", Android(), Android(), {Accessory()}, {},
                           {carplay, other_phone, other_phone, other_phone, {refused}}));

    // What is stored decides about CarLife, and only a storage device's MirrorLink takes its node.
    const Steps stick_ml = {kLookForStick, remove, reset_ml, done(STATE_ML_RESETTING)};
    events.push_back(Reset("a storage device", Stick(), Stick(), {Stick()}, {},
                           {carplay, missing, stick_ml, {refused}, {refused}}));
    events.push_back(Reset("a device of no type", Other(), Other(), {}, {},
                           {carplay, missing, ml_missing, {refused}, {refused}}));
    events.push_back(Reset("an Apple phone with other ids than the stored one", Apple(),
                           WithIds(Apple(), 0x05ad, 0x12a9), {}, {},
                           {carplay, missing, ml_missing, apple_carlife, apple_carlife}));
    for (const Phone& phone : {Apple(), Shuttle()}) {
        events.push_back(Reset("an Apple phone", phone, phone, {phone}, {},
                               {carplay, missing, ml_missing, apple_carlife, apple_carlife}));
        events.push_back(
            Reset("an Apple phone fails", phone, phone, {phone}, failures,
                  {carplay_fails, missing, ml_missing, apple_carlife_fails, apple_carlife_fails}));
        events.push_back(
            Reset("an Apple phone fails with a positive number", phone, phone, {phone}, positive_failures,
                  {carplay_fails, missing, ml_missing, apple_carlife_fails, apple_carlife_fails}));
    }
    Run(events);
}

// --- search ---

TEST_F(TransitionTable, APhoneIsSearchedFor) {
    const States elsewhere = kNoICL;
    const auto search = [](std::uint8_t trigger) {
        return [trigger](UPortState& state, const Event&, unsigned char port) {
            UMsgSearch message = ShortMessage(dcm::MSGID_SEARCH, port, trigger);
            message.sender = SENDER_SEARCH;
            state.ProcessSearch(&message);
        };
    };
    std::vector<Event> events;
    const auto add = [&](const Phone& phone, std::uint8_t trigger, const Step& found) {
        events.push_back({.name = Format("search %d, type %u", trigger, phone.type),
                          .memory = {.stored = phone, .cp = 1},
                          .happen = search(trigger),
                          .rows = {{{STATE_ATTACH, STATE_CP_SUPPORT}, {Enter(), found}},
                                   {elsewhere, {Enter(), NotSend()}}}});
    };
    std::vector<Phone> others = {Android(), Stick()};
    for (const int type : {0, 1, 2, 3, 4, 7, 11, 12, 13})
        others.push_back(Other(type));
    for (const Phone& phone : others) {
        add(phone, SEARCH_FROM_SDCM, TellStored(1));
        add(phone, SEARCH_FROM_MEDIA, [](Expected& e) {
            Say(160, Format("port%d dev_type:%u, so not send", e.port, e.memory.stored.type))(e);
        });
    }
    for (const Phone& phone : {Apple(), Shuttle(), Mtp()}) {
        add(phone, SEARCH_FROM_SDCM, TellStored(1));
        add(phone, SEARCH_FROM_MEDIA, TellMedia(2));
    }
    Run(events);
}

// --- timers ---

const Step kAskStatus = OnUnitPort("DiscernPortStatus");
const Step kDetached = All({TellStored(2), Go(STATE_DETACH)});

TEST_F(TransitionTable, AModeChangeTakesTooLong) {
    const States elsewhere = {STATE_DETACH,      STATE_ATTACH,       STATE_CP_SUPPORT,   STATE_CP_CHANGING,
                              STATE_RESETTING,   STATE_AA,           STATE_ML,           STATE_CP,
                              STATE_CL,          STATE_AA_RESETTING, STATE_ML_RESETTING, STATE_CP_RESETTING,
                              STATE_CL_RESETTING};
    std::vector<Event> events;
    for (const Phone& phone : {Android(), Apple(), Stick(), Other()}) {
        for (const int status : {0, 1, 2}) {
            const auto failed = [&](int id) {
                return status == 2 ? kDetached : All({TellStoredResult(id, 1), Go(STATE_ATTACH)});
            };
            events.push_back({.name = Format("CH_TIMEOUT, type %u, status %d", phone.type, status),
                              .memory = {.stored = phone, .cp = 1, .aoap_retry = 2, .reset_retry = 2},
                              .results = {{"DiscernPortStatus", {status}}},
                              .happen =
                                  [](UPortState& state, const Event&, unsigned char port) {
                                      UMsgTimeout message = ShortMessage(dcm::MSGID_CH_TIMEOUT, port);
                                      state.ProcessChTimeoutMsg(&message);
                                  },
                              .rows = {
                                  {{STATE_AA_CHANGING}, {EnterWithId(), kAskStatus, failed(5)}},
                                  {{STATE_ML_CHANGING}, {EnterWithId(), kAskStatus, failed(6)}},
                                  {{STATE_CL_CHANGING}, {EnterWithId(), kAskStatus, failed(8)}},
                                  {elsewhere, {EnterWithId(), NotSend()}},
                              }});
        }
    }
    Run(events);
}

const States kNoCarPlayReset = {STATE_DETACH,       STATE_ATTACH,       STATE_CP_SUPPORT,  STATE_AA_CHANGING,
                                STATE_ML_CHANGING,  STATE_CP_CHANGING,  STATE_CL_CHANGING, STATE_RESETTING,
                                STATE_AA,           STATE_ML,           STATE_CP,          STATE_CL,
                                STATE_AA_RESETTING, STATE_ML_RESETTING, STATE_CL_RESETTING};

TEST_F(TransitionTable, AResetOfCarPlayTakesTooLong) {
    std::vector<Event> events;
    for (const Phone& phone : {Apple(), Android()}) {
        for (const int status : {0, 1, 2}) {
            events.push_back({.name = Format("CARPLAY_TIMEOUT, type %u, status %d", phone.type, status),
                              .memory = {.stored = phone, .cp = 1},
                              .results = {{"DiscernPortStatus", {status}}},
                              .happen =
                                  [](UPortState& state, const Event&, unsigned char port) {
                                      UMsgTimeout message = ShortMessage(dcm::MSGID_CARPLAY_TIMEOUT, port);
                                      state.ProcessCarplayTimeoutMsg(&message);
                                  },
                              .rows = {{{STATE_CP_RESETTING},
                                        {EnterWithId(), kAskStatus, status == 2 ? kDetached : All({})}},
                                       {kNoCarPlayReset, {EnterWithId(), NotSend()}}}});
        }
    }
    Run(events);
}

TEST_F(TransitionTable, TheCapabilityIsPolled) {
    const Deed poll = [](UPortState& state, const Event&, unsigned char port) {
        UMsgCarplayCapa message = ShortMessage(dcm::MSGID_CARPLAY_CAPA, port);
        state.ProcessCarplayCapaMsg(&message);
    };
    const States elsewhere = {STATE_DETACH,       STATE_CP_SUPPORT,   STATE_AA_CHANGING, STATE_ML_CHANGING,
                              STATE_CP_CHANGING,  STATE_CL_CHANGING,  STATE_RESETTING,   STATE_AA,
                              STATE_ML,           STATE_CP,           STATE_CL,          STATE_AA_RESETTING,
                              STATE_ML_RESETTING, STATE_CP_RESETTING, STATE_CL_RESETTING};
    std::vector<Event> events;
    for (const Phone& phone : {Apple(), Shuttle()}) {
        for (const int cp : {0, 1, 2}) {
            const Step found = cp == 1 ? All({TellStored(1), Cancel(44), Go(STATE_CP_SUPPORT)}) : All({});
            events.push_back(
                {.name = Format("poll, type %u of capability %d", phone.type, cp),
                 .memory = {.stored = phone},
                 .results = {{"DiscernCPCapability", {cp}}},
                 .happen = poll,
                 .rows = {{{STATE_ATTACH},
                           {EnterWithId(), ToStored("DiscernCPCapability"), Capa(2, 2, cp, 2), found}},
                          {elsewhere, {EnterWithId(), NotSend()}}}});
        }
    }
    for (const Phone& phone : {Android(), Mtp(), Stick(), Other()})
        events.push_back({.name = Format("poll, type %u", phone.type),
                          .memory = {.stored = phone},
                          .happen = poll,
                          .rows = {{kAllStates, {Say(64, "ignore if not an apple device")}}}});
    Run(events);
}

// --- engineering menu ---

TEST_F(TransitionTable, TheSignalIsTested) {
    std::vector<Event> events;
    for (const bool on : {false, true}) {
        events.push_back(
            {.name = on ? "signal test on" : "signal test off",
             .results = {{"StartEyePattern", {-1}}},
             .happen = [on](UPortState& state, const Event&,
                            unsigned char) { state.ProcessTestForceEnable(on); },
             .rows = {{kAllStates,
                       {[on](Expected& e) {
                            Say(128, Format("port%d %s trigger:%d", e.port, StateName(e.state), on))(e);
                        },
                        OnUnitPort("StartEyePattern", on ? " on" : " off")}}}});
    }
    Run(events);
}

TEST_F(TransitionTable, TheHubModeIsChanged) {
    const States elsewhere = {STATE_DETACH,       STATE_ATTACH,       STATE_CP_SUPPORT,  STATE_AA_CHANGING,
                              STATE_ML_CHANGING,  STATE_CP_CHANGING,  STATE_CL_CHANGING, STATE_RESETTING,
                              STATE_AA,           STATE_ML,           STATE_CL,          STATE_AA_RESETTING,
                              STATE_ML_RESETTING, STATE_CP_RESETTING, STATE_CL_RESETTING};
    std::vector<Event> events;
    for (const E_HUB_MODE mode : {HUB_HOST, HUB_DEVICE}) {
        events.push_back(
            {.name = Format("hub mode %d", mode),
             .results = {{"StartHubMode", {-1}}},
             .happen = [mode](UPortState& state, const Event&, unsigned char) { state.ProcessHubMode(mode); },
             .rows = {
                 {{STATE_CP},
                  {[mode](Expected& e) {
                       Say(128, Format("port%d %s mode:%d", e.port, StateName(e.state), mode))(e);
                   },
                   OnUnitPort("StartHubMode", Format(" mode %d", mode))}},
                 {elsewhere, {[](Expected& e) {
                      Say(128, Format("port%d %s, so can't change", e.port, StateName(e.state)))(e);
                  }}},
             }});
    }
    Run(events);
}

}  // namespace
}  // namespace test
