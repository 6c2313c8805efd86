// How libcurl finds the addresses of a name: in place of two functions of c-ares, to which Libcurl.cmake redirects its
// calls.
//
// libcurl asks c-ares once a family, and c-ares answers each question for itself, so a family missing from the hosts
// file is looked up in DNS, one missing from DNS in the search domains, and may lead to another host. Here the two
// questions are one look-up, as in the C library. What the hosts file has is not asked of DNS; the next search domain
// is asked only when the name before it has no address at all. An answer is handed out as soon as it is there, so that
// libcurl need not wait for a name server that drops the other question.
#include <arpa/inet.h>
#include <curl/curlver.h>
#include <errno.h>
#include <stdbool.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>

#include "ares_private.h"  // the list of names to ask for

// Another version may have another list, or ask in another order: compare, and run e2e/heavy/names.py.
#if ARES_VERSION != 0x012209 || LIBCURL_VERSION_NUM != 0x081600
#error "This was read against c-ares 1.34.9 and libcurl 8.22.0."
#endif

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
  size_t plainName;  // the first or the last: the name itself, without a search domain
  Question questions[FAMILIES];
  int open;  // questions that c-ares has not answered for the name before nextName
  bool asksFile, asksDns, fileIsFirst;
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

// The next search domain may have an address, as in the C library.
static bool maySearchOn(const Question* question) {
  return question->status == ARES_ENOTFOUND || question->status == ARES_ENODATA || question->status == ARES_ESERVFAIL;
}

// After any other failure in a search domain the plain name alone is left, be it still to ask.
static void skipDomains(Lookup* lookup) {
  if (lookup->nextName <= lookup->plainName) {
    lookup->nextName = lookup->plainName;
  } else if (lookup->nextName > lookup->plainName + 1) {
    lookup->nextName = lookup->nameCount;
  }
}

static void ask(Lookup* lookup);

static void takeAnswer(void* argument, int status, int timeouts, struct ares_addrinfo* addresses) {
  Question* const question = argument;
  Lookup* const lookup = question->lookup;
  (void)timeouts;
  question->status = status;
  if (status == ARES_SUCCESS) answer(question, status, addresses);
  if (--lookup->open > 0) return;
  const bool found = lookup->questions[0].status == ARES_SUCCESS || lookup->questions[1].status == ARES_SUCCESS;
  if (!maySearchOn(&lookup->questions[0]) && !maySearchOn(&lookup->questions[1])) skipDomains(lookup);
  if (!found && lookup->nextName < lookup->nameCount) {
    ask(lookup);
  } else {
    end(lookup, !found);
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

static void addAddress(void* argument, int status, int timeouts, struct ares_addrinfo* address) {
  Question* const question = argument;
  struct ares_addrinfo_node** end = question->fromFile ? &question->fromFile->nodes : NULL;
  (void)timeouts;
  question->status = status;
  if (!address) return;
  if (!end) {
    question->fromFile = address;
    return;
  }
  while (*end) end = &(*end)->ai_next;
  *end = address->nodes;
  address->nodes = NULL;
  ares_freeaddrinfo(address);
}

// c-ares answers at once for an address as text.
static int addAddressAsText(Lookup* lookup, const char* text) {
  struct in6_addr bytes;
  for (int i = 0; i < FAMILIES; ++i) {
    Question* const question = &lookup->questions[i];
    if (!question->callback || inet_pton(families[i], text, &bytes) != 1) continue;
    lookup->hints.ai_family = families[i];
    ares_getaddrinfo(lookup->channel, text, lookup->port, &lookup->hints, addAddress, question);
    return question->status;
  }
  return ARES_SUCCESS;
}

static const char blanks[] = " \t\r\v\f";

// Takes a line of the hosts file.
static int takeAddress(Lookup* lookup, const char* name, char* line) {
  char* rest;
  const char* const address = strtok_r(line, blanks, &rest);
  const char* alias = address;
  while (alias && (alias = strtok_r(NULL, blanks, &rest)) && strcasecmp(alias, name) != 0) {
  }
  return alias ? addAddressAsText(lookup, address) : ARES_SUCCESS;
}

// Takes a line of nsswitch.conf. Systemd's service "resolve" reads the hosts file itself, before it asks DNS.
static int takeServices(Lookup* lookup, const char* database, char* line) {
  char* rest;
  const char* service = strtok_r(line, ": \t\r\v\f", &rest);
  if (!service || strcmp(service, database) != 0) return ARES_SUCCESS;
  lookup->asksFile = lookup->asksDns = lookup->fileIsFirst = false;
  while ((service = strtok_r(NULL, blanks, &rest))) {
    const bool isBoth = strcmp(service, "resolve") == 0;
    if (isBoth || strcmp(service, "files") == 0) lookup->asksFile = true;
    lookup->fileIsFirst |= lookup->asksFile && !lookup->asksDns;
    if (isBoth || strcmp(service, "dns") == 0) lookup->asksDns = true;
  }
  return ARES_SUCCESS;
}

// Has `take` read a file, line by line, without comments. c-ares's reading of the hosts file would take a name's
// address for that of all names which share a line with it. Returns ARES_ENOMEM or ARES_SUCCESS, whether or not there
// is a file.
static int readLines(const char* path, Lookup* lookup, const char* key, int (*take)(Lookup*, const char*, char*)) {
  FILE* const file = fopen(path, "re");
  char* line = NULL;
  size_t size = 0;
  int status = ARES_SUCCESS;
  while (file && status == ARES_SUCCESS && getline(&line, &size, file) >= 0) {
    line[strcspn(line, "#\n")] = '\0';
    status = take(lookup, key, line);
  }
  if ((!file || !feof(file)) && errno == ENOMEM) status = ARES_ENOMEM;
  free(line);
  if (file) fclose(file);
  return status;
}

static void start(Lookup* lookup, const char* name) {
  int status = readLines("/etc/nsswitch.conf", lookup, "hosts", takeServices);
  if (status == ARES_SUCCESS && lookup->asksFile) status = readLines(PATH_HOSTS, lookup, name, takeAddress);
  const bool isInFile = lookup->questions[0].fromFile || lookup->questions[1].fromFile;
  if (status == ARES_SUCCESS && (!lookup->asksDns || (lookup->fileIsFirst && isInFile))) {
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
  lookup->plainName = strlen(*lookup->names) == strlen(name) ? 0 : lookup->nameCount - 1;
  lookup->channel->flags |= ARES_FLAG_NOSEARCH | ARES_FLAG_NOALIASES;  // for c-ares to ask for the very names
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
  lookup->asksFile = lookup->asksDns = lookup->fileIsFirst = true;  // unless nsswitch.conf says otherwise
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
  static char dns[] = "b";
  options->flags = 0;
  options->lookups = dns;
  return ares_init_options(channel, options, mask | ARES_OPT_FLAGS | ARES_OPT_LOOKUPS);
}
