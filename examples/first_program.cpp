// first_program.cpp - a remote control on a pipe: the loop reads its keys, posts each as an
// event with a time to live, a handler shows it, and a timer ends the loop after the last key.
#include <unistd.h>

#include <chrono>
#include <climits>
#include <cstdio>
#include <thread>

#include "ltcallbackeventhandler.h"
#include "ltevent.h"
#include "lteventmask.h"
#include "lteventqueue.h"
#include "ltlinuxselectmainloop.h"

namespace {

constexpr unsigned kKeyEvent = 1;  // key1 of a key event; key2 is the key
int keysShown = 0;

// Loop thread. A result other than 0 finishes the event here: the queue deletes it.
int showKey(ltEventQueue&, ltEvent* event, int, void*)
{
    std::printf("key %c\n", static_cast<char>(event->key2));
    ++keysShown;
    return 1;
}

// Lowest priority, no mask: finishes every event the others let through, so none stays queued.
int dropUnclaimed(ltEventQueue&, ltEvent*, int, void*) { return 1; }

int stopLoop(int, const ltTime&, void*)
{
    ltLinuxSelectMainLoop::getMainLoop()->quit();  // run() returns after this pass
    return 0;
}

// Loop thread, on every pass on which the pipe is readable: one key per byte.
int readKey(int id, int fd, void* queue)
{
    ltLinuxSelectMainLoop* loop = ltLinuxSelectMainLoop::getMainLoop();
    char key;
    if (read(fd, &key, 1) == 1) {
        auto* event = new ltEvent(kKeyEvent, static_cast<unsigned char>(key), 0, 0, nullptr, 0);
        if (static_cast<ltEventQueue*>(queue)->post(*event, 2000) != 0)  // expires in 2 s
            delete event;  // refused: still ours
        return 0;
    }
    loop->removeIOHandle(id);  // end of input
    loop->addOneShotTimer(ltTime(0, 200000), stopLoop, nullptr);  // in 200 ms, once
    return 0;
}

}  // namespace

int main()
{
    // The first call creates the loop: make it before any other thread uses the library.
    ltLinuxSelectMainLoop* loop = ltLinuxSelectMainLoop::getMainLoop();
    ltEventQueue queue(*loop);
    queue.useMonotonicTimeouts();  // TTLs and lethal times count from now
    const int member = loop->registerMainLoopMember(queue);

    // The queue owns its handlers, and each handler its mask (kOwnsMask).
    const int keep = ltEventHandler::kPersistent | ltEventHandler::kOwnsMask;
    queue.addEventHandlerFunction(showKey,
                                  new ltEventMask(ltEventMask::kMaskNone, 1, ltEventMask::kKeyEqual, kKeyEvent, 0),
                                  nullptr, 0, keep);
    queue.addEventHandler(INT_MIN, new ltCallbackEventHandler(nullptr, nullptr, nullptr,
                                                              ltEventHandler::kPersistent, dropUnclaimed));

    int fds[2];
    if (pipe(fds) != 0)
        return 1;
    loop->addPersistentIOHandle(handleRead, fds[0], readKey, &queue);

    // The worker plays the remote control: three keys, then end of input.
    std::thread worker([out = fds[1]] {
        for (const char* key = "123"; *key != '\0'; ++key) {
            (void)!write(out, key, 1);
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        }
        close(out);
    });

    const int result = loop->run();  // until quit()
    worker.join();

    // Clean stop: the queue deletes its handlers (and their masks); no event is left queued.
    queue.removeEventHandlers(0, 0, nullptr, true);
    loop->unregisterMainLoopMember(member, queue);
    close(fds[0]);
    std::printf("%d keys shown\n", keysShown);
    return result == 0 && keysShown == 3 ? 0 : 1;
}
