#pragma once

class ChangeCounter;
class Gate;
class Journal;
class LoginBrake;
class Orders;
class Passwords;
class Severinit;
class SpeakerBoard;
class sqlite;
class Task_workque;
class TokenTable;
class Tokens;

/// What the handlers work with; filled by start-up before the first request, owned by it. Main-loop objects
/// only through callOnLoop() or the gate.
struct Services {
    const sqlite* database = nullptr; ///< the main loop's; a handler has its worker's own (RestCall)
    Severinit* devices = nullptr;     ///< main loop
    SpeakerBoard* board = nullptr;    ///< any thread
    Gate* gate = nullptr;             ///< any thread
    Journal* journal = nullptr;       ///< null when it is switched off; begin(), settle() any thread
    Orders* orders = nullptr;         ///< main loop; null without a journal
    Task_workque* tasks = nullptr;    ///< main loop; null for kinds without tasks
    Passwords* passwords = nullptr;   ///< any thread
    Tokens* tokens = nullptr;         ///< any thread
    TokenTable* oldTokens = nullptr;  ///< any thread
    LoginBrake* loginBrake = nullptr; ///< any thread
    int webSocketPort = 0;            ///< 0: the WebSocket front is closed
    ChangeCounter* changes = nullptr; ///< any thread
};
