// tour.h - the sections of the demo application, a guided tour of libtarvotools-mt.
//
// Sections that do not need the main loop run first, one after another, and return. Then the
// loop sections set up their timers, descriptors, queues and handlers on the one process-wide
// loop, and main() runs the loop until the tour's last timer ends the process.
#ifndef LT_TOUR_H
#define LT_TOUR_H

class ltLinuxSelectMainLoop;

// Prints a section heading.
void tourHeading(const char* title);

// -- sections that run before the loop
void tourTimerQueueAndExecutor();  // timer queue, serial executor, semaphore, random source
void tourConfigAndUris();          // INFO configuration and the platform's channel URIs
void tourCrypto();                 // file encryption round trip, MD5, SHA-1, base64
void tourContainers();             // pointer list, sorted list, calendar time, scope timer

// -- sections on the running loop: each arms what it needs and returns; all output must be
//    done within kTourLoopSeconds of exec() starting
constexpr int kTourLoopSeconds = 4;
void tourMainLoop(ltLinuxSelectMainLoop& loop);  // periodic timer and a watched pipe
void tourEvents(ltLinuxSelectMainLoop& loop);    // the event road: masks, TTL, lethal time

#endif // LT_TOUR_H
