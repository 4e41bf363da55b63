// Devices that come and go.
#include "gtest/gtest-spi.h"

#include "TransitionTable.h"

namespace test {
namespace {

using namespace dcm::usb;

const States kAddIgnored = {STATE_ATTACH, STATE_CP_SUPPORT, STATE_CP_CHANGING, STATE_RESETTING,
                            STATE_AA,     STATE_ML,         STATE_CL};

// What an arrival does in the states that do not ignore it, after the line with which each begins.
struct Arrival {
    Steps detach, aa_changing, ml_changing, cl_changing, cp;
    Steps aa_resetting, ml_resetting, cp_resetting, cl_resetting;
};

Rows RowsOf(const Arrival& arrival) {
    return {
        {kAddIgnored, {Enter(), NotSend()}},
        {{STATE_DETACH}, {Enter(), All(arrival.detach)}},
        {{STATE_AA_CHANGING}, {Enter(), All(arrival.aa_changing)}},
        {{STATE_ML_CHANGING}, {Enter(), All(arrival.ml_changing)}},
        {{STATE_CL_CHANGING}, {Enter(), All(arrival.cl_changing)}},
        {{STATE_CP}, {Enter(), All(arrival.cp)}},
        {{STATE_AA_RESETTING}, {Enter(), All(arrival.aa_resetting)}},
        {{STATE_ML_RESETTING}, {Enter(), All(arrival.ml_resetting)}},
        {{STATE_CP_RESETTING}, {Enter(), All(arrival.cp_resetting)}},
        {{STATE_CL_RESETTING}, {Enter(), All(arrival.cl_resetting)}},
    };
}

void Come(UPortState& state, const Event& event, unsigned char port) {
    UMsgNode node = NodeMessage(event.node, event.coming, port);
    state.ProcessUsbAddMsg(&node);
}

Event Add(const std::string& name, const Memory& memory, const Phone& coming, const Arrival& arrival,
          const std::map<std::string, std::vector<int>>& results = {}) {
    return {.name = "add: " + name,
            .memory = memory,
            .coming = coming,
            .results = results,
            .happen = Come,
            .rows = RowsOf(arrival)};
}

// --- what arrivals have in common ---

const Step kAttachAndroid = All({Store(), ToComing("DiscernAACapability"), Capa(1, 1, 2, 2), TellNode()});
const Step kAttachAccessory = All({Store(), Say(128, "aoap mode"), Capa(3, 1, 2, 2), TellNode()});

Step AttachApple(int cp) {
    return All({Store(), ToComing("DiscernCPCapability"), Capa(2, 2, cp, 2), TellNode()});
}

Step Switched(int id, E_CON_STATE state) {
    return All({Cancel(38), TellSwitched(id), Go(state)});
}
const Step kSwitchedToAA = All({Cancel(38), TellSwitched(5), ClearAoapRetry(), Go(STATE_AA)});
const Step kSwitchedToCL = All({Cancel(38), HostPort(), TellSwitched(8), ClearAoapRetry(), Go(STATE_CL)});

// It came back unswitched.
Step Restart(const char* operation) {
    return All({Cancel(38), Sleep(), CountAoapRetry(), ToComing(operation)});
}
Step RestartAndWait(const char* operation) {
    return All({Restart(operation), Arm(39)});
}

const Step kDefense = Say(160, "defense code for healing, please check!!");

const Step kBack = All({Cancel(38), Store(), TellNode(), Go(STATE_ATTACH)});
const Step kAccepted = All({Cancel(38), Store(), TellNode(), ClearResetRetry(), Go(STATE_ATTACH)});

Step ResetAgain(const char* operation) {
    return All({Cancel(38), Sleep(), CountResetRetry(), ResetComing(operation)});
}

Step BackFromCarPlay(E_CON_STATE state) {
    return All({Cancel(42), TellNode(), Go(state)});
}
Step BackFromAppleCarLife(E_CON_STATE state) {
    return All({Cancel(40), TellNode(), Go(state)});
}

// It has the serial number S2.
Step AnotherDevice(const Step& attach, E_CON_STATE state) {
    return All({Cancel(38),
                [](Expected& e) { Say(160, Format("port%d serial S2 > S1, so another device", e.port))(e); },
                TellStored(2), Go(STATE_DETACH), attach, Go(state)});
}

// --- what arrivals do where a device of the same kind was ---

// An Android phone.
Arrival Unswitched(const Steps& detach) {
    return {
        .detach = detach,
        .aa_changing = {RestartAndWait("StartAOAP")},
        .ml_changing = {Switched(6, STATE_ML)},
        .cl_changing = {RestartAndWait("StartCarLifeAOAP")},
        .cp = {kDefense, Go(STATE_ATTACH)},
        .aa_resetting = {kAccepted},
        .ml_resetting = {kBack},
        .cp_resetting = {BackFromCarPlay(STATE_ATTACH)},
        .cl_resetting = {kAccepted},
    };
}

Arrival AsAccessory(const Steps& detach) {
    return {
        .detach = detach,
        .aa_changing = {kSwitchedToAA},
        .ml_changing = {Switched(6, STATE_ML)},
        .cl_changing = {kSwitchedToCL},
        .cp = {kDefense, Go(STATE_ATTACH)},
        .aa_resetting = {ResetAgain("StartAAPortReset")},
        .ml_resetting = {kBack},
        .cp_resetting = {BackFromCarPlay(STATE_ATTACH)},
        .cl_resetting = {ResetAgain("StartCLPortReset")},
    };
}

// An Apple phone; `known` follows from what is known of the one that was there.
Arrival AppleAgain(const Steps& detach, E_CON_STATE known) {
    return {
        .detach = detach,
        .aa_changing = {RestartAndWait("StartAOAP")},
        .ml_changing = {Switched(6, STATE_ML)},
        .cl_changing = {Switched(9, STATE_CL)},
        .cp = {kDefense, Go(known)},
        .aa_resetting = {kAccepted},
        .ml_resetting = {kBack},
        .cp_resetting = {BackFromCarPlay(known)},
        .cl_resetting = {BackFromAppleCarLife(known)},
    };
}

// What is neither Android nor Apple.
Arrival NoPhone(const Steps& detach) {
    Arrival arrival = Unswitched(detach);
    arrival.cl_changing = arrival.cl_resetting = {};
    return arrival;
}

Arrival WithAnother(Arrival arrival, const Step& another) {
    arrival.aa_resetting = arrival.ml_resetting = arrival.cl_resetting = {another};
    return arrival;
}

TEST_F(TransitionTable, AnAndroidPhoneComes) {
    const Steps attach = {kAttachAndroid, TellMedia(2), Go(STATE_ATTACH)};
    std::vector<Event> events = {
        Add("Android phone", {}, Android(), Unswitched(attach), {{"DiscernAACapability", {1}}}),
        Add("MTP device", {.stored = Mtp()}, Mtp(), Unswitched({kAttachAndroid, Go(STATE_ATTACH)}),
            {{"DiscernAACapability", {1}}}),
    };
    for (const int capa : {0, 2})
        events.push_back(Add(Format("Android phone of capability %d", capa), {}, Android(),
                             Unswitched({Store(), ToComing("DiscernAACapability"), Capa(capa, 1, 2, 2),
                                         TellNode(), TellMedia(2), Go(STATE_ATTACH)}),
                             {{"DiscernAACapability", {capa}}}));
    const std::pair<int, int> almost[] = {{0x18d1, 0x2cff}, {0x18d1, 0x2d02}, {0x18d1, 0x2d03},
                                          {0x18d1, 0x2d06}, {0x18d1, 0x2d08}, {0x18d1, 0x2f00},
                                          {0x18d0, 0x2d00}, {0x04e8, 0x2d01}};
    for (const auto& [vid, pid] : almost) {
        const Phone phone =
            WithIds(Android(), static_cast<std::uint16_t>(vid), static_cast<std::uint16_t>(pid));
        events.push_back(Add(Format("Android phone %04x:%04x", vid, pid), {}, phone, Unswitched(attach),
                             {{"DiscernAACapability", {1}}}));
    }
    Run(events);
}

TEST_F(TransitionTable, AnAccessoryComes) {
    std::vector<Event> events;
    for (const std::uint16_t pid : {0x2d00, 0x2d01, 0x2d04, 0x2d05})
        events.push_back(Add(Format("accessory %04x", pid), {}, Accessory(pid),
                             AsAccessory({kAttachAccessory, TellMedia(2), Go(STATE_AA)})));
    events.push_back(Add("accessory where an MTP device was", {.stored = Mtp()},
                         WithType(Accessory(), DEV_TYPE_MTP), AsAccessory({kAttachAccessory, Go(STATE_AA)})));
    events.push_back(Add("accessory where an accessory was", {.stored = Accessory()}, Accessory(),
                         AsAccessory({kAttachAccessory, TellMedia(2), Go(STATE_AA)})));
    Run(events);
}

TEST_F(TransitionTable, AnApplePhoneComes) {
    std::vector<Event> events;
    for (const Phone& phone : {Apple(), Shuttle()}) {
        for (const int cp : {0, 1, 2}) {
            for (const int known : {0, 1, 2}) {
                events.push_back(
                    Add(Format("type %u of capability %d, known %d", phone.type, cp, known),
                        {.stored = phone, .cp = known}, phone,
                        AppleAgain({AttachApple(cp), Go(cp == 1 ? STATE_CP_SUPPORT : STATE_ATTACH)},
                                   known == 1 ? STATE_CP_SUPPORT : STATE_ATTACH),
                        {{"DiscernCPCapability", {cp}}}));
            }
        }
    }
    Run(events);
}

TEST_F(TransitionTable, AnotherDeviceComes) {
    const Phone android = WithSerial(Android(), "S2");
    const Phone accessory = WithSerial(Accessory(), "S2");
    const Phone apple = WithSerial(Apple(), "S2");
    const Phone stick = WithSerial(Stick(), "S2");
    const Step attach_stick = All({Store(), Capa(2, 1, 2, 2), TellNode()});

    // In the resets of CarPlay and of an Apple phone's CarLife nobody asks who comes.
    Arrival other_apple = AppleAgain({AttachApple(2), Go(STATE_ATTACH)}, STATE_CP_SUPPORT);
    other_apple.aa_resetting = other_apple.ml_resetting = {AnotherDevice(AttachApple(2), STATE_ATTACH)};

    Arrival accessory_on_apple = AsAccessory({kAttachAccessory, TellMedia(2), Go(STATE_AA)});
    accessory_on_apple.cl_changing = {Switched(9, STATE_CL)};
    accessory_on_apple.cp = {kDefense, Go(STATE_CP_SUPPORT)};
    accessory_on_apple.cp_resetting = {BackFromCarPlay(STATE_CP_SUPPORT)};
    accessory_on_apple.aa_resetting =
        accessory_on_apple.ml_resetting = {AnotherDevice(kAttachAccessory, STATE_AA)};
    accessory_on_apple.cl_resetting = {BackFromAppleCarLife(STATE_CP_SUPPORT)};

    Arrival android_on_stick = NoPhone({kAttachAndroid, TellMedia(2), Go(STATE_ATTACH)});
    android_on_stick.aa_resetting =
        android_on_stick.ml_resetting = {AnotherDevice(kAttachAndroid, STATE_ATTACH)};

    const std::map<std::string, std::vector<int>> android_capa = {{"DiscernAACapability", {1}}};
    Run({
        Add("another Android phone", {.reset_retry = 3}, android,
            WithAnother(Unswitched({kAttachAndroid, TellMedia(2), Go(STATE_ATTACH)}),
                        AnotherDevice(kAttachAndroid, STATE_ATTACH)),
            android_capa),
        Add("another accessory", {.reset_retry = 3}, accessory,
            WithAnother(AsAccessory({kAttachAccessory, TellMedia(2), Go(STATE_AA)}),
                        AnotherDevice(kAttachAccessory, STATE_AA))),
        Add("Apple phone with CarPlay instead of an Android phone", {}, apple,
            WithAnother(Unswitched({AttachApple(1), Go(STATE_CP_SUPPORT)}),
                        AnotherDevice(AttachApple(1), STATE_CP_SUPPORT)),
            {{"DiscernCPCapability", {1}}}),
        Add("Apple phone without CarPlay instead of an Android phone", {}, apple,
            WithAnother(Unswitched({AttachApple(2), Go(STATE_ATTACH)}),
                        AnotherDevice(AttachApple(2), STATE_ATTACH)),
            {{"DiscernCPCapability", {2}}}),
        Add("stick instead of an Android phone", {}, stick,
            WithAnother(Unswitched({attach_stick, Go(STATE_ATTACH)}),
                        AnotherDevice(attach_stick, STATE_ATTACH))),
        Add("another Apple phone", {.stored = Apple(), .cp = 1}, apple, other_apple,
            {{"DiscernCPCapability", {2}}}),
        Add("accessory instead of an Apple phone", {.stored = Apple(), .cp = 1}, accessory,
            accessory_on_apple),
        Add("Android phone instead of a stick", {.stored = Stick()}, android, android_on_stick, android_capa),
    });
}

TEST_F(TransitionTable, WhatIsNoPhoneComes) {
    std::vector<Event> events = {
        Add("stick", {.stored = Stick()}, Stick(),
            NoPhone({Store(), Capa(2, 1, 2, 2), TellNode(), Go(STATE_ATTACH)})),
    };
    for (const int type : {0, 1, 2, 3, 4, 7, 11, 12, 13}) {
        const Steps attach = {Store(), SameCapa(), TellNode()};
        const std::string name = Format("device of type %d", type);
        events.push_back(
            Add(name, {.stored = Other(type)}, Other(type), NoPhone({All(attach), Go(STATE_ATTACH)})));
        // Nobody asks it what it can do: what the last device could is what it can.
        events.push_back(Add(name + " after an accessory", {.stored = Accessory()}, Other(type),
                             Unswitched({All(attach), Go(STATE_AA)})));
        events.push_back(Add(name + " after CarPlay", {.stored = Apple(), .cp = 1}, Other(type),
                             AppleAgain({All(attach), Go(STATE_CP_SUPPORT)}, STATE_CP_SUPPORT)));
    }
    Run(events);
}

// What a repeated start gives counts from the sixth on.
TEST_F(TransitionTable, APhoneComesBackUnswitchedAgainAndAgain) {
    const Steps attach = {kAttachAndroid, TellMedia(2), Go(STATE_ATTACH)};
    std::vector<Event> events;
    for (int retries = 0; retries <= 6; ++retries) {
        for (const int result : {0, -1}) {
            Arrival arrival = Unswitched(attach);
            if (retries >= 5 && result != 0) {
                arrival.aa_changing = {Restart("StartAOAP"), TellStoredResult(5, 1), Go(STATE_ATTACH)};
                arrival.cl_changing = {Restart("StartCarLifeAOAP"), TellStoredResult(8, 1), Go(STATE_ATTACH)};
            }
            events.push_back(
                Add(Format("unswitched after %d retries, start %d", retries, result), {.aoap_retry = retries},
                    Android(), arrival,
                    {{"DiscernAACapability", {1}}, {"StartAOAP", {result}}, {"StartCarLifeAOAP", {result}}}));
        }
        events.push_back(Add(Format("switched after %d retries", retries), {.aoap_retry = retries},
                             Accessory(), AsAccessory({kAttachAccessory, TellMedia(2), Go(STATE_AA)})));
    }
    Run(events);
}

TEST_F(TransitionTable, AnAccessoryComesBackFromResetsAgainAndAgain) {
    std::vector<Event> events;
    for (int retries = 0; retries <= 10; ++retries) {
        Arrival arrival = AsAccessory({kAttachAccessory, TellMedia(2), Go(STATE_AA)});
        if (retries == 10) arrival.aa_resetting = arrival.cl_resetting = {kAccepted};
        for (const int result : {0, -1}) {
            events.push_back(Add(Format("accessory after %d resets, reset %d", retries, result),
                                 {.reset_retry = retries}, Accessory(), arrival,
                                 {{"StartAAPortReset", {result}}, {"StartCLPortReset", {result}}}));
        }
        events.push_back(Add(Format("phone after %d resets", retries), {.reset_retry = retries}, Android(),
                             Unswitched({kAttachAndroid, TellMedia(2), Go(STATE_ATTACH)}),
                             {{"DiscernAACapability", {1}}}));
    }
    Run(events);
}

// --- devices that go ---

void Leave(UPortState& state, const Event& event, unsigned char port) {
    UMsgNode node = NodeMessage(event.node, event.coming, port);
    state.ProcessUsbRemoveMsg(&node);
}

const Step kDetach = All({TellNode(), Go(STATE_DETACH)});
const Step kReenumerates = All({Cancel(40), Arm(37)});

Event Remove(const std::string& name, const Memory& memory, const Phone& leaving, const Steps& attach,
             const Steps& cp_changing, const Steps& cl_changing, const Steps& cl) {
    return {.name = "remove: " + name,
            .memory = memory,
            .coming = leaving,
            .node = dcm::MSGID_USB_REMOVE,
            .happen = Leave,
            .rows = {
                {{STATE_DETACH, STATE_RESETTING, STATE_CP_RESETTING}, {Enter(), NotSend()}},
                {{STATE_ATTACH}, {Enter(), Cancel(44), TellNode(), All(attach), Go(STATE_DETACH)}},
                {{STATE_CP_SUPPORT, STATE_AA, STATE_ML}, {Enter(), kDetach}},
                {{STATE_AA_CHANGING, STATE_ML_CHANGING}, {Enter(), kReenumerates}},
                {{STATE_CP_CHANGING}, {Enter(), All(cp_changing)}},
                {{STATE_CL_CHANGING}, {Enter(), All(cl_changing)}},
                {{STATE_CP}, {Enter()}},
                {{STATE_CL}, {Enter(), All(cl)}},
                {{STATE_AA_RESETTING, STATE_ML_RESETTING, STATE_CL_RESETTING}, {Enter(), Arm(37)}},
            }};
}

TEST_F(TransitionTable, ADeviceGoes) {
    const Steps announced = {TellStored(2), Go(STATE_DETACH)};
    std::vector<Event> events = {
        Remove("Android phone", {}, Android(), {TellMedia(5)}, announced, {kReenumerates}, {kDetach}),
        Remove("accessory that came as a phone", {}, Accessory(), {TellMedia(5)}, announced, {kReenumerates},
               {kDetach}),
        Remove("Apple phone where an Android phone came", {}, Apple(), {TellMedia(5)}, announced,
               {kReenumerates}, {kDetach}),
        Remove("MTP device", {.stored = Mtp()}, Mtp(), {}, announced, {kReenumerates}, {kDetach}),
        Remove("stick", {.stored = Stick()}, Stick(), {}, announced, {}, {}),
        Remove("Android phone where a stick came", {.stored = Stick()}, Android(), {}, announced, {}, {}),
    };
    for (const Phone& phone : {Apple(), Shuttle()}) {
        const std::string name = Format("type %u", phone.type);
        events.push_back(Remove(name + " without tty", {.stored = phone, .cp = 1}, phone, {}, announced,
                                {kReenumerates}, {}));
        events.push_back(Remove(name + " with tty", {.stored = phone, .cp = 1, .tty = true}, phone, {}, {},
                                {kReenumerates}, {}));
    }
    for (const int type : {0, 1, 2, 3, 4, 7, 11, 12, 13})
        events.push_back(Remove(Format("device of type %d", type), {.stored = Other(type)}, Other(type), {},
                                announced, {}, {}));
    events.push_back(Remove("Android phone with tty", {.tty = true}, Android(), {TellMedia(5)}, {},
                            {kReenumerates}, {kDetach}));
    Run(events);
}

TEST_F(TransitionTable, ADeviceHasNotComeBackInTime) {
    const Deed deferred = [](UPortState& state, const Event& event, unsigned char port) {
        UMsgNode node = NodeMessage(event.node, event.coming, port);
        node.sender = SENDER_ITEM;
        state.ProcessDeferredMsg(&node);
    };
    std::vector<Event> events;
    const std::pair<Phone, Phone> pairs[] = {{Android(), Android()},
                                             {Android(), Accessory()},
                                             {Apple(), Apple()},
                                             {Stick(), Stick()},
                                             {Other(), Other()}};
    for (const auto& [stored, gone] : pairs) {
        for (const int status : {0, 1, 2}) {
            const Step gone_for_good = status == 2 ? kDetach : All({});
            const Step after_reset = status == 2 ? kDetach : All({TellStored(1), Go(STATE_ATTACH)});
            const Step ask = All({EnterWithId(), OnUnitPort("DiscernPortStatus")});
            events.push_back(
                {.name = Format("deferred, type %u, status %d", gone.type, status),
                 .memory = {.stored = stored, .cp = 1},
                 .coming = gone,
                 .node = dcm::MSGID_USB_REMOVE,
                 .results = {{"DiscernPortStatus", {status}}},
                 .happen = deferred,
                 .rows = {
                     {{STATE_ATTACH, STATE_AA_CHANGING, STATE_ML_CHANGING, STATE_CL_CHANGING, STATE_AA,
                       STATE_ML, STATE_CL},
                      {ask, gone_for_good}},
                     {{STATE_AA_RESETTING, STATE_ML_RESETTING, STATE_CL_RESETTING}, {ask, after_reset}},
                     {{STATE_DETACH, STATE_CP_SUPPORT, STATE_CP_CHANGING, STATE_RESETTING, STATE_CP,
                       STATE_CP_RESETTING},
                      {ask, NotSend()}},
                 }});
        }
    }
    Run(events);
}

// --- hidraw and tty ---

const States kHidElsewhere = {STATE_DETACH,    STATE_AA_CHANGING,  STATE_ML_CHANGING,  STATE_CL_CHANGING,
                              STATE_RESETTING, STATE_AA,           STATE_ML,           STATE_CP,
                              STATE_CL,        STATE_AA_RESETTING, STATE_ML_RESETTING, STATE_CL_RESETTING};

TEST_F(TransitionTable, AHidrawNodeComes) {
    const Deed hid_add = [](UPortState& state, const Event&, unsigned char port) {
        UMsgHidNode node = ShortMessage(dcm::MSGID_HID_ADD, port);
        state.ProcessHidAddMsg(&node);
    };
    std::vector<Event> events;
    for (const Phone& phone : {Apple(), Shuttle()}) {
        for (const int cp : {0, 1, 2}) {
            const Step found = cp == 1 ? All({TellStored(1), Cancel(44), Go(STATE_CP_SUPPORT)}) : Arm(43);
            events.push_back(
                {.name = Format("hid add, type %u of capability %d", phone.type, cp),
                 .memory = {.stored = phone},
                 .results = {{"DiscernCPCapability", {cp}}},
                 .happen = hid_add,
                 .rows = {
                     {{STATE_ATTACH}, {ToStored("DiscernCPCapability"), Capa(2, 2, cp, 2), found}},
                     {{STATE_CP_SUPPORT, STATE_CP_CHANGING, STATE_CP_RESETTING}, {}},
                     {kHidElsewhere, {NotSend()}},
                 }});
        }
    }
    for (const Phone& phone : {Android(), Mtp(), Stick(), Other()})
        events.push_back({.name = Format("hid add, type %u", phone.type),
                          .memory = {.stored = phone},
                          .happen = hid_add,
                          .rows = {{kAllStates, {Say(64, "ignore if not an apple device")}}}});
    Run(events);
}

// The table itself: who leaves out a state, or names it twice, is told.
TEST_F(TransitionTable, EachStateHasOneRow) {
    const Deed hid_remove = [](UPortState& state, const Event&, unsigned char) {
        state.ProcessHidRemoveMsg();
    };
    const States but_last(kAllStates.begin(), kAllStates.end() - 1);
    EXPECT_NONFATAL_FAILURE(
        Run({{.name = "a row too few", .happen = hid_remove, .rows = {{but_last, {Enter()}}}}}),
        "a row too few: rows of each state");
    EXPECT_NONFATAL_FAILURE(Run({{.name = "a row too many",
                                  .happen = hid_remove,
                                  .rows = {{kAllStates, {Enter()}}, {{STATE_ML}, {Enter()}}}}}),
                            "a row too many: rows of each state");
}

TEST_F(TransitionTable, AHidrawNodeGoes) {
    for (const Phone& phone : {Apple(), Android()})
        Run({{.name = "hid remove",
              .memory = {.stored = phone},
              .happen = [](UPortState& state, const Event&, unsigned char) { state.ProcessHidRemoveMsg(); },
              .rows = {{kAllStates, {Enter()}}}}});
}

TEST_F(TransitionTable, ATtyComesChangesAndGoes) {
    const Deed add = [](UPortState& state, const Event&, unsigned char) { state.ProcessTtyAddMsg(); };
    const Deed remove = [](UPortState& state, const Event&, unsigned char) { state.ProcessTtyRemoveMsg(); };
    const Deed change = [](UPortState& state, const Event&, unsigned char) { state.ProcessTtyChangeMsg(); };
    const States but_changing = {
        STATE_DETACH,      STATE_ATTACH,       STATE_CP_SUPPORT,   STATE_AA_CHANGING,  STATE_ML_CHANGING,
        STATE_CL_CHANGING, STATE_RESETTING,    STATE_AA,           STATE_ML,           STATE_CP,
        STATE_CL,          STATE_AA_RESETTING, STATE_ML_RESETTING, STATE_CP_RESETTING, STATE_CL_RESETTING};
    const States but_detach_and_cp = {
        STATE_ATTACH,       STATE_CP_SUPPORT,   STATE_AA_CHANGING,  STATE_ML_CHANGING, STATE_CP_CHANGING,
        STATE_CL_CHANGING,  STATE_RESETTING,    STATE_AA,           STATE_ML,          STATE_CL,
        STATE_AA_RESETTING, STATE_ML_RESETTING, STATE_CP_RESETTING, STATE_CL_RESETTING};
    const States but_carplay = {STATE_DETACH,      STATE_ATTACH,      STATE_CP_SUPPORT,   STATE_AA_CHANGING,
                                STATE_ML_CHANGING, STATE_CL_CHANGING, STATE_RESETTING,    STATE_AA,
                                STATE_ML,          STATE_CL,          STATE_AA_RESETTING, STATE_ML_RESETTING,
                                STATE_CL_RESETTING};
    std::vector<Event> events;
    for (const Phone& phone : {Apple(), Android(), Other()}) {
        for (const bool attached : {false, true}) {
            const Memory memory{.stored = phone, .cp = 1, .tty = attached};
            events.push_back({.name = "tty add",
                              .memory = memory,
                              .happen = add,
                              .rows = {{{STATE_CP_CHANGING}, {Go(STATE_CP), Tty(true)}},
                                       {but_changing, {NotSend(), Tty(true)}}}});
            events.push_back({.name = "tty remove",
                              .memory = memory,
                              .happen = remove,
                              .rows = {{{STATE_DETACH, STATE_CP}, {Enter(), Tty(false)}},
                                       {but_detach_and_cp, {Enter(), NotSend(), Tty(false)}}}});
            for (const int result : {0, -1})
                events.push_back(
                    {.name = Format("tty change, reset %d", result),
                     .memory = memory,
                     .results = {{"StartCPPortReset", {result}}},
                     .happen = change,
                     .rows = {{{STATE_CP_CHANGING, STATE_CP, STATE_CP_RESETTING},
                               {ResetStored("StartCPPortReset"), TellStored(2), Go(STATE_DETACH)}},
                              {but_carplay, {NotSend()}}}});
        }
    }
    Run(events);
}

}  // namespace
}  // namespace test
