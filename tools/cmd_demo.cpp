// demo: one record's road as a message over loopback, every stage printed.
#include "commands.h"
#include "message_io.h"
#include "msghdr.h"
#include "netmsg.h"
#include "nsocket.h"
#include "streamsocket.h"
#include "zeppackmsg.h"

#include <algorithm>
#include <memory>

namespace colloquy {

namespace nSock = nCommunication::nSocket;

int cmdDemo(Words const& words) {
    if (!words.empty()) throw UsageError("demo takes no arguments");
    auto say = [](std::string const& line) { writeAll(stdout, line + "\n"); };

    // 1. A listener on an ephemeral loopback port.
    StreamSocket listener;
    listener.CreateListenerSocket(0);
    unsigned short const port = nSock::gLocalPort(listener.GetHandle());
    say("1. listener on loopback port " + std::to_string(port));

    // 2. A record, written in its text form.
    Pairs const sent = {{"$FROM", "agent"}, {"city", "Z\xc3\xbcrich"},          {"count", "42"},
                        {"empty", ""},      {"binary", std::string("a\0b", 3)}, {"note", "it's 'quoted' text"}};
    std::string const text = textFormOf(sent);
    say("2. record of " + std::to_string(sent.size()) + " pairs, text form " + std::to_string(text.size()) +
        " bytes: " + escapeBytes(text));

    // 3. A message around it.
    cColloquyMessage const outgoing(7, "hostB", "svc", "hostA", "agent", static_cast<QType>(3), 1, 2, text.data(),
                                    static_cast<unsigned>(text.size()));
    say("3. message packed into " + std::to_string(outgoing.packedLen) +
        " bytes: from agent@hostA to svc@hostB, qtype 3, user value 7");

    // 4. Sent over a loopback connection: header and body in one send.
    StreamSocket client;
    client.ConnectLocal(port, nSock::cSocketOptions());
    if (!client.SendTypedMessageZ2(1, 2, outgoing.packedBuffer, static_cast<int>(outgoing.packedLen)))
        throw Failure("send failed");
    c_MessageHeader header;
    SSMMakeMessageHeader(static_cast<long>(outgoing.packedLen), 1, 2, &header);
    say("4. sent " + std::to_string(8 + outgoing.packedLen) + " bytes, header " + hexBytes(&header, 8));

    // 5. Received: the header, then exactly the body.
    StreamSocket server(listener.Accept(nSock::cSocketOptions()));
    nSock::cFixedLatencyConfiguration latency(nTime::cDiff::fromSeconds(10));
    short type = 0, subType = 0;
    char* body = nullptr;
    int length = 0;
    if (!server.WaitTypedMessageZ1(type, subType, body, length, &latency)) throw Failure("receive failed");
    say("5. received type " + std::to_string(type) + ", subtype " + std::to_string(subType) + ", body " +
        std::to_string(length) + " bytes");

    // 6. Unpacked: the message takes over the received buffer.
    cColloquyMessage* incoming =
        ZEPTmo2Cqm(new cTypedMessageObject(type, subType, body, static_cast<unsigned>(length)));
    std::unique_ptr<cColloquyMessage, void (*)(cColloquyMessage*)> owner(incoming, ZEPDeleteMsg);
    std::string printed = incoming->printOnString();
    if (!printed.empty() && printed.back() == '\n') printed.pop_back();
    say("6. unpacked: " + printed);

    // 7. Read back into a record.
    Pairs const arrived = decodeTextForm(std::string_view(incoming->body, incoming->bodyLen));
    say("7. read back " + std::to_string(arrived.size()) + " pairs:");
    writeAll(stdout, pairLines(arrived, "     "));

    Pairs expected = sent;
    std::sort(expected.begin(), expected.end());
    bool const same = arrived == expected && std::string(incoming->fromName) == "agent" &&
                      std::string(incoming->toHost) == "hostB" && incoming->qType == 3 && incoming->userValue == 7;
    say(same ? "8. what arrived equals what was sent" : "8. MISMATCH: what arrived differs from what was sent");
    return same ? 0 : 1;
}

}  // namespace colloquy
