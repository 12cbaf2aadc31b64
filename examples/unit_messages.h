/*
 * The messages of unitd, for the daemon and for programs that send to it. A message's fields:
 *
 * type    a question's operation, with UNIT_JSON for an answer in JSON; an answer's is the question's with
 *         UNIT_ANSWER, and UNIT_FAULT when it was refused
 * param1  a number of the asker's, which the answer carries back; answers to other questions are told by it
 * name    the sender's program name; not looked at
 * param2  length of the body in bytes: a message of another length lost fragments or is joined with the next
 * body    corelink text; an answer's is JSON when the question asked for it
 *
 * Answers go to the port that the question came from. They are no questions: nobody answers them.
 */
#ifndef UNIT_MESSAGES_H
#define UNIT_MESSAGES_H

enum {
    UNIT_QUERY = 1,  /* members without values; answered with the values that the configuration has */
    UNIT_UPDATE = 2, /* values for members that the configuration has; answered "done=true" */
    UNIT_INSERT = 3, /* the same, also for members that it lacks */

    UNIT_FAULT = 0x20,
    UNIT_JSON = 0x40,
    UNIT_ANSWER = 0x80
};

enum { UNIT_LONGEST_BODY = 1 << 20 }; /* bytes of a question that unitd reads */

#endif
