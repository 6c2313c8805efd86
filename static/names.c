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
  bool plainIsFirst;  // the name without a search domain is the first of them, else the last
  Question questions[FAMILIES];
  int open;  // questions that c-ares has not answered for the name before nextName
  bool asksFile, asksDns, fileIsFirst;
  int status;  // of reading the files: ARES_ENOMEM or ARES_SUCCESS, whether or not the name is listed
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
      answer(question, lookup->status == ARES_SUCCESS ? question->status : lookup->status, NULL);
      ares_freeaddrinfo(question->fromFile);
    }
  }
  ares_strsplit_free(lookup->names, lookup->nameCount);
  free(lookup);
}

// The next search domain is asked, as in the C library; after any other failure only the name without one.
static bool maySearchOn(int status) {
  return status == ARES_ENOTFOUND || status == ARES_ENODATA || status == ARES_ESERVFAIL || status == ARES_ECONNREFUSED;
}

static void ask(Lookup* lookup);

static void takeAnswer(void* argument, int status, int timeouts, struct ares_addrinfo* addresses) {
  Question* const question = argument;
  Lookup* const lookup = question->lookup;
  (void)timeouts;
  question->status = status;
  if (status == ARES_SUCCESS) answer(question, status, addresses);
  const bool isOver = status == ARES_ENOMEM || status == ARES_EDESTRUCTION || status == ARES_ECANCELLED;
  if (isOver) lookup->nextName = lookup->nameCount;  // c-ares can't be asked any more
  if (--lookup->open > 0) return;
  const int ipv6 = lookup->questions[0].status, ipv4 = lookup->questions[1].status;
  const bool found = ipv6 == ARES_SUCCESS || ipv4 == ARES_SUCCESS;
  const bool isLast = lookup->nextName == lookup->nameCount;
  if (!isLast && lookup->nextName > lookup->plainIsFirst && !maySearchOn(ipv6) && !maySearchOn(ipv4)) {
    lookup->nextName = lookup->nameCount - !lookup->plainIsFirst;  // skips the other domains
  }
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
  struct ares_addrinfo* const first = question->fromFile;
  (void)timeouts;
  question->lookup->status = status;
  if (!first) question->fromFile = address;
  if (!first || !address) return;
  struct ares_addrinfo_node** end = &first->nodes;
  while (*end) end = &(*end)->ai_next;
  *end = address->nodes;
  address->nodes = NULL;
  ares_freeaddrinfo(address);
}

static void addAddressAsText(Lookup* lookup, const char* text) {
  struct in6_addr bytes;
  for (int i = 0; i < FAMILIES; ++i) {
    if (!lookup->questions[i].callback || inet_pton(families[i], text, &bytes) != 1) continue;
    lookup->hints.ai_family = families[i];  // c-ares answers at once
    ares_getaddrinfo(lookup->channel, text, lookup->port, &lookup->hints, addAddress, &lookup->questions[i]);
  }
}

static const char blanks[] = " \t\r\v\f";

static void takeAddress(Lookup* lookup, const char* name, char* line) {
  char* rest;
  const char* const address = strtok_r(line, blanks, &rest);
  const char* alias = address;
  while (alias && (alias = strtok_r(NULL, blanks, &rest)) && strcasecmp(alias, name) != 0) {
  }
  if (alias) addAddressAsText(lookup, address);
}

// Takes a line of nsswitch.conf. Systemd's service "resolve" reads the hosts file itself, before it asks DNS.
static void takeServices(Lookup* lookup, const char* database, char* line) {
  char* rest;
  const char* service = strtok_r(line, ": \t\r\v\f", &rest);
  if (!service || strcmp(service, database) != 0) return;
  lookup->asksFile = lookup->asksDns = lookup->fileIsFirst = false;
  while ((service = strtok_r(NULL, blanks, &rest))) {
    const bool isBoth = strcmp(service, "resolve") == 0;
    lookup->asksFile |= isBoth || strcmp(service, "files") == 0;
    lookup->fileIsFirst |= lookup->asksFile && !lookup->asksDns;
    lookup->asksDns |= isBoth || strcmp(service, "dns") == 0;
  }
}

// Has `take` read a file, line by line. c-ares's own reader of the hosts file gives a name's address to all names that
// share a line with it.
static void readLines(const char* path, Lookup* lookup, const char* key, void (*take)(Lookup*, const char*, char*)) {
  FILE* const file = fopen(path, "re");
  char* line = NULL;
  size_t size = 0;
  while (file && lookup->status == ARES_SUCCESS && getline(&line, &size, file) >= 0) {
    line[strcspn(line, "#\n")] = '\0';
    take(lookup, key, line);
  }
  if ((!file || !feof(file)) && errno == ENOMEM) lookup->status = ARES_ENOMEM;
  free(line);
  if (file) fclose(file);
}

static void start(Lookup* lookup, const char* name) {
  readLines("/etc/nsswitch.conf", lookup, "hosts", takeServices);
  if (lookup->asksFile) readLines(PATH_HOSTS, lookup, name, takeAddress);
  const bool isInFile = lookup->questions[0].fromFile || lookup->questions[1].fromFile;
  const bool isEnough = !lookup->asksDns || (lookup->fileIsFirst && isInFile);
  if (lookup->status == ARES_SUCCESS && !isEnough) {
    lookup->status = (int)ares_search_name_list(lookup->channel, name, &lookup->names, &lookup->nameCount);
  }
  if (lookup->status != ARES_SUCCESS || isEnough) {
    end(lookup, lookup->status == ARES_SUCCESS);
    return;
  }
  lookup->plainIsFirst = strlen(*lookup->names) == strlen(name);
  lookup->channel->flags |= ARES_FLAG_NOSEARCH | ARES_FLAG_NOALIASES;  // for c-ares to ask for the very names
  ask(lookup);
}

// The question for IPv6, which waits for the one for IPv4, as libcurl asks that right behind it. (It asks the first one
// alone only with an option that the tool does not set.)
static Question waiting;

// In place of ares_getaddrinfo.
void webreq_ares_getaddrinfo(ares_channel_t* channel, const char* name, const char* port,
                             const struct ares_addrinfo_hints* hints, ares_addrinfo_callback callback, void* argument) {
  Question question = {.callback = callback, .argument = argument, .status = ARES_ENODATA};
  if (hints->ai_family == AF_INET6) {
    waiting = question;
    return;
  }
  Lookup* const lookup = malloc(sizeof *lookup);
  waiting.lookup = question.lookup = lookup;
  if (!lookup) {
    answer(&waiting, ARES_ENOMEM, NULL);
    answer(&question, ARES_ENOMEM, NULL);
    return;
  }
  *lookup = (Lookup){.channel = channel, .hints = *hints, .questions = {waiting, question}};
  lookup->asksFile = lookup->asksDns = lookup->fileIsFirst = true;  // unless nsswitch.conf says otherwise
  snprintf(lookup->port, sizeof lookup->port, "%s", port);
  start(lookup, name);
}

// In place of ares_init_options, which libcurl calls before each look-up: without EDNS, as the C library asks. Some
// name servers drop queries that have it, and c-ares knows how to go on after a FORMERR alone.
int webreq_ares_init_options(ares_channel_t** channel, struct ares_options* options, int mask) {
  static char dns[] = "b";  // c-ares's name for it
  waiting = (Question){.status = ARES_ENOTIMP};
  options->flags = 0;
  options->lookups = dns;
  return ares_init_options(channel, options, mask | ARES_OPT_FLAGS | ARES_OPT_LOOKUPS);
}
