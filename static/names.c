// How libcurl finds the addresses of a name: in place of two functions of c-ares, to which Libcurl.cmake redirects its
// calls.
//
// libcurl asks c-ares once a family, and c-ares answers each question for itself: the family that the hosts file or the
// name's own answer lacks is looked for elsewhere, in DNS and in the search domains, and another machine may be found.
// Here the two questions are one look-up, as in the C library. What the hosts file has is not asked of DNS; the next
// search domain is asked only when the name before it has no address at all. An answer is handed out as soon as it is
// there, so that libcurl need not wait for a name server that drops the other question.
#include <arpa/inet.h>
#include <errno.h>
#include <stdbool.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>

#include "ares_private.h"  // the order of files and DNS, the list of names to ask for, how to make an answer

typedef struct Lookup Lookup;

// libcurl's question for the addresses of one family.
typedef struct {
  Lookup* lookup;
  ares_addrinfo_callback callback;  // takes the answer; NULL when there is one, or no such question
  void* argument;                   // the callback's first
  int status;                       // of c-ares's answer
  struct ares_addrinfo* fromFile;   // what the hosts file has, or NULL
} Question;

enum { FAMILIES = 2 };
static const int families[FAMILIES] = {AF_INET6, AF_INET};  // in the order of libcurl's questions

struct Lookup {
  ares_channel_t* channel;
  struct ares_addrinfo_hints hints;
  char port[sizeof "65535"];
  char** names;  // to ask for, one after the other, until one has an address
  size_t nameCount;
  size_t nextName;
  Question questions[FAMILIES];
  int open;    // questions that c-ares has not answered for the name before nextName
  bool found;  // that name has an address
};

static void answer(Question* question, int status, struct ares_addrinfo* addresses) {
  const ares_addrinfo_callback callback = question->callback;
  question->callback = NULL;
  if (callback) callback(question->argument, status, 0, addresses);
}

// Answers what is still to be answered, by the hosts file's addresses if `fromFile`, and frees the look-up.
static void end(Lookup* lookup, bool fromFile) {
  for (int i = 0; i < FAMILIES; ++i) {
    Question* const question = &lookup->questions[i];
    if (fromFile && question->fromFile) {
      answer(question, ARES_SUCCESS, question->fromFile);
    } else {
      answer(question, question->status, NULL);
      ares_freeaddrinfo(question->fromFile);
    }
  }
  ares_strsplit_free(lookup->names, lookup->nameCount);
  free(lookup);
}

static void endWith(Lookup* lookup, int status) {
  for (int i = 0; i < FAMILIES; ++i) lookup->questions[i].status = status;
  end(lookup, false);
}

// The next name may have an address, as in the C library.
static bool maySearchOn(const Question* question) {
  return question->status == ARES_ENOTFOUND || question->status == ARES_ENODATA || question->status == ARES_ESERVFAIL;
}

static void ask(Lookup* lookup);

static void takeAnswer(void* argument, int status, int timeouts, struct ares_addrinfo* addresses) {
  Question* const question = argument;
  Lookup* const lookup = question->lookup;
  (void)timeouts;
  question->status = status;
  if (status == ARES_SUCCESS) {
    lookup->found = true;
    answer(question, status, addresses);
  }
  if (--lookup->open > 0) return;
  const bool searchOn = maySearchOn(&lookup->questions[0]) && maySearchOn(&lookup->questions[1]);
  if (searchOn && lookup->nextName < lookup->nameCount) {
    ask(lookup);
  } else {
    end(lookup, !lookup->found);
  }
}

// Asks DNS for the next name. The last answer, which may be there at once, ends the look-up.
static void ask(Lookup* lookup) {
  const char* const name = lookup->names[lookup->nextName++];
  const bool both = lookup->questions[0].callback;
  lookup->open = both ? 2 : 1;
  for (int i = both ? 0 : 1; i < FAMILIES; ++i) {
    lookup->hints.ai_family = families[i];
    ares_getaddrinfo(lookup->channel, name, lookup->port, &lookup->hints, takeAnswer, &lookup->questions[i]);
  }
}

// The address in a line of the hosts file, NULL if the line is not about `name`.
static const char* addressFor(char* line, const char* name) {
  static const char blanks[] = " \t\r\v\f";
  char* rest;
  line[strcspn(line, "#\n")] = '\0';
  const char* const address = strtok_r(line, blanks, &rest);
  const char* alias = address;
  while (alias && (alias = strtok_r(NULL, blanks, &rest)) && strcasecmp(alias, name) != 0) {
  }
  return alias ? address : NULL;
}

static int addAddress(Question* question, int family, const void* bytes) {
  if (!question->callback) return ARES_SUCCESS;
  if (!question->fromFile) question->fromFile = ares_malloc_zero(sizeof *question->fromFile);
  if (!question->fromFile) return ARES_ENOMEM;
  const unsigned short port = (unsigned short)atoi(question->lookup->port);
  return (int)ares_append_ai_node(family, port, 0, bytes, &question->fromFile->nodes);
}

static int addAddressAsText(Lookup* lookup, const char* text) {
  struct in6_addr bytes;
  for (int i = 0; i < FAMILIES; ++i) {
    if (inet_pton(families[i], text, &bytes) == 1) return addAddress(&lookup->questions[i], families[i], &bytes);
  }
  return ARES_SUCCESS;
}

// Looks for `name` in the hosts file, line by line: c-ares would take a name's address for that of all names which
// share a line with it. Returns ARES_ENOMEM or ARES_SUCCESS, be the name there or not.
static int readHostsFile(Lookup* lookup, const char* name) {
  FILE* const file = fopen(PATH_HOSTS, "re");
  char* line = NULL;
  size_t size = 0;
  int status = ARES_SUCCESS;
  while (file && status == ARES_SUCCESS && getline(&line, &size, file) >= 0) {
    const char* const address = addressFor(line, name);
    if (address) status = addAddressAsText(lookup, address);
  }
  if ((!file || !feof(file)) && errno == ENOMEM) status = ARES_ENOMEM;
  free(line);
  if (file) fclose(file);
  return status;
}

// nsswitch.conf says whether the file or DNS, or both, and which of them first: a channel's lookups, "fb" as a rule.
static void start(Lookup* lookup, const char* name) {
  char* const lookups = lookup->channel->lookups;
  const bool asksDns = strchr(lookups, 'b');
  int status = strchr(lookups, 'f') ? readHostsFile(lookup, name) : ARES_SUCCESS;
  const bool isInFile = lookup->questions[0].fromFile || lookup->questions[1].fromFile;
  if (status == ARES_SUCCESS && (!asksDns || (*lookups == 'f' && isInFile))) {
    end(lookup, true);
    return;
  }
  if (status == ARES_SUCCESS) {
    status = (int)ares_search_name_list(lookup->channel, name, &lookup->names, &lookup->nameCount);
  }
  if (status != ARES_SUCCESS) {
    endWith(lookup, status);
    return;
  }
  strcpy(lookups, "b");  // from here on c-ares asks DNS, for the very names that it is given
  lookup->channel->flags |= ARES_FLAG_NOSEARCH | ARES_FLAG_NOALIASES;
  ask(lookup);
}

static void startLookup(ares_channel_t* channel, const char* name, const char* port,
                        const struct ares_addrinfo_hints* hints, Question* questions) {
  Lookup* const lookup = calloc(1, sizeof *lookup);
  for (int i = 0; i < FAMILIES; ++i) {
    questions[i].lookup = lookup;
    if (!lookup) answer(&questions[i], ARES_ENOMEM, NULL);
  }
  if (!lookup) return;
  lookup->channel = channel;
  lookup->hints = *hints;
  snprintf(lookup->port, sizeof lookup->port, "%s", port);
  memcpy(lookup->questions, questions, sizeof lookup->questions);
  start(lookup, name);
}

// The question for IPv6, which waits for the one for IPv4, as libcurl asks that right behind it. (It asks the first one
// alone only with an option that the tool does not set.)
static Question waiting = {.status = ARES_ENODATA};

// In place of ares_getaddrinfo.
void webreq_ares_getaddrinfo(ares_channel_t* channel, const char* name, const char* port,
                             const struct ares_addrinfo_hints* hints, ares_addrinfo_callback callback, void* argument) {
  const Question question = {.callback = callback, .argument = argument, .status = ARES_ENODATA};
  if (hints->ai_family == AF_INET6) {
    waiting = question;
    return;
  }
  Question questions[FAMILIES] = {waiting, question};
  startLookup(channel, name, port, hints, questions);
}

// In place of ares_init_options, which libcurl calls before each look-up: without EDNS, as the C library asks. Some
// name servers drop queries that have it, and c-ares knows how to go on after a FORMERR alone.
int webreq_ares_init_options(ares_channel_t** channel, struct ares_options* options, int mask) {
  waiting.callback = NULL;
  options->flags = 0;
  return ares_init_options(channel, options, mask | ARES_OPT_FLAGS);
}
