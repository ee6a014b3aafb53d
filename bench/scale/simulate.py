#!/usr/bin/python3
"""Simulate many hosts on one endpoint that refuses requests above a rate, and print what the ways to retry achieve.

Usage: simulate.py [--work SECONDS] [--seed N]

Model:
- The endpoint has a token bucket: RATE tokens each second, and at most those of one second. A request takes one. If
  there is none, the request is refused with 503, which may take a part of a token, too: the refusal costs work.
- The work is as many requests as the endpoint can answer in --work seconds; each host has the same share of it. All
  hosts begin at once. A host has some threads. Each takes an operation and sends its requests one after the other: a
  read has 2, a patch 10; half of all requests belong to patches. If a request gives up, its operation fails and is not
  repeated; what it has achieved does not count as goodput.
- Retries are those of Retry.cpp and the limit is that of RequestRate.cpp, with the same constants.
"""

import argparse
import dataclasses
import heapq
import math
import multiprocessing
import random
from array import array

RATE = 3500.0  # requests/s
ONE_WAY = 0.01  # s
SERVICE = 0.02  # s, mean of an exponential distribution

FIRST_DELAY, MAX_DELAY = 0.1, 20.0  # s, RetryPolicy

READ, PATCH = 2, 10  # requests
PATCHES = 1 / 6  # of all operations

DECREASE, PERIOD, GRACE, MIN_RATE, MIN_FIRST_PEAK = 0.5, 10.0, 2.0, 0.1, 10.0  # RequestRate


@dataclasses.dataclass(frozen=True)
class Case:
    hosts: int
    has_jitter: bool
    has_limit: bool
    refusal_cost: float  # tokens
    threads: int = 8  # RemoteSettings::transfers
    budget: float = 120.0  # s, RetryPolicy


class Limit:
    """RequestRate: nothing until the store refuses a request, then a cubic curve around the rate that was refused."""

    __slots__ = ("next", "peak", "since", "recent", "last")

    def __init__(self):
        self.next = 0.0  # no attempt begins earlier
        self.peak = math.inf  # requests/s at the last decrease
        self.since = -GRACE
        self.recent = 0.0  # attempts of the last second, approximately
        self.last = 0.0

    def rate(self, now):
        if self.peak == math.inf:
            return math.inf
        x = (now - self.since) / PERIOD - (1 - DECREASE) ** (1 / 3)
        return max(MIN_RATE, self.peak * (1 + x * x * x))

    def take(self, now):
        if now < self.next:
            return False
        self.recent = self.recent * math.exp(self.last - now) + 1
        self.last = now
        self.next = now + 1 / self.rate(now)
        return True

    def refused(self, begin, now):
        if begin >= self.since + GRACE:
            self.peak = max(MIN_RATE, min(self.rate(now), max(MIN_FIRST_PEAK, self.recent * math.exp(self.last - now))))
            self.since = now
            self.next = max(self.next, now + 1 / self.rate(now))


def simulate(case, work, seed):
    """@return a dictionary of figures"""
    draw = random.Random(seed)
    per_host = case.threads
    threads = case.hosts * per_host
    left = [work // case.hosts] * case.hosts  # requests of operations that are not begun
    limits = [Limit() for _ in left] if case.has_limit else None
    waiting = [[] for _ in left]  # threads that need a turn

    operation = [0] * threads  # requests of the operation that runs
    done = [0] * threads  # of them
    wanted = [0.0] * threads  # when the thread wanted to send the request
    begin = [0.0] * threads  # of the first attempt
    last_begin = [0.0] * threads  # of the next attempt
    sent = [0.0] * threads  # begin of this attempt
    delay = [0.0] * threads  # the next maximum
    failures = [0] * threads

    tokens, filled = RATE, 0.0
    attempts = refused = operations = failed = useful = most_useful = 0
    finish = most = 0.0
    latencies = array("d")
    events = []  # (time, kind, thread or host)
    ARRIVE, SUCCEED, REFUSED, RETRY, TURN = range(5)
    push, pop = heapq.heappush, heapq.heappop

    def send(thread, now):
        if failures[thread] == 0:
            begin[thread] = now
        sent[thread] = now
        push(events, (now + ONE_WAY, ARRIVE, thread))

    def want(thread, now):
        """Begin an attempt when there is a turn."""
        host = thread // per_host
        if limits is None or limits[host].take(now):
            send(thread, now)
        elif failures[thread] > 0 and limits[host].next > last_begin[thread]:
            give_up(thread, now)
        else:
            waiting[host].append(thread)
            if len(waiting[host]) == 1:
                push(events, (limits[host].next, TURN, host))

    def new_request(thread, now):
        wanted[thread] = now
        delay[thread] = FIRST_DELAY
        failures[thread] = 0
        want(thread, now)

    def new_operation(thread, now):
        host = thread // per_host
        if left[host] > 0:
            operation[thread] = min(left[host], PATCH if draw.random() < PATCHES else READ)
            left[host] -= operation[thread]
            done[thread] = 0
            new_request(thread, now)

    def give_up(thread, now):
        nonlocal failed, operations, finish
        failed += 1
        operations += 1
        finish = now
        new_operation(thread, now)

    for thread in range(threads):
        new_operation(thread, 0.0)
    while events:
        now, kind, who = pop(events)
        if kind == ARRIVE:
            attempts += 1
            tokens = min(RATE, tokens + (now - filled) * RATE)
            filled = now
            if tokens >= 1:
                tokens -= 1
                push(events, (now + draw.expovariate(1 / SERVICE) + ONE_WAY, SUCCEED, who))
            else:
                tokens = max(-RATE, tokens - case.refusal_cost)
                refused += 1
                push(events, (now + ONE_WAY, REFUSED, who))
        elif kind == SUCCEED:
            latencies.append(now - wanted[who])
            done[who] += 1
            if done[who] < operation[who]:
                new_request(who, now)
            else:
                operations += 1
                useful += operation[who]
                finish = now
                if useful <= 0.9 * work:
                    most = now
                    most_useful = useful
                new_operation(who, now)
        elif kind == REFUSED:
            if limits is not None:
                limits[who // per_host].refused(sent[who], now)
            failures[who] += 1
            wait = draw.random() * delay[who] if case.has_jitter else delay[who]
            delay[who] = min(2 * delay[who], MAX_DELAY)
            expected = now - sent[who] if failures[who] > 1 else 0
            last_begin[who] = begin[who] + case.budget - expected
            if now + wait > last_begin[who]:
                give_up(who, now)
            else:
                push(events, (now + wait, RETRY, who))
        elif kind == RETRY:
            want(who, now)
        else:  # TURN
            queue = waiting[who]
            if limits[who].take(now):
                send(queue.pop(draw.randrange(len(queue))), now)
            late = [thread for thread in queue if failures[thread] > 0 and limits[who].next > last_begin[thread]]
            waiting[who] = queue = [thread for thread in queue if thread not in late]
            if queue:
                push(events, (limits[who].next, TURN, who))
            for thread in late:
                give_up(thread, now)
    ordered = sorted(latencies)
    return {
        "goodput": most_useful / most / RATE if most > 0 else 0,
        "refused": refused / attempts,
        "failed": failed / operations,
        "p50": ordered[len(ordered) // 2],
        "p99": ordered[len(ordered) * 99 // 100],
        "finish": finish,
    }


def run(job):
    return simulate(*job)


def seconds(value):
    return f"{value * 1000:.0f} ms" if value < 1 else f"{value:.1f} s" if value < 10 else f"{value:.0f} s"


def percent(value):
    return "0" if value == 0 else "< 0.1 %" if value < 0.001 else f"{value:.1%}".replace("%", " %")


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--work", type=float, default=300, help="seconds of the endpoint; 3 or more (default 300)")
    parser.add_argument("--seed", type=int, default=1)
    options = parser.parse_args()

    policies = (False, False), (False, True), (True, False), (True, True)
    tables = [
        (f"a refusal costs {cost:g} of a request", [Case(hosts, *policy, cost)
                                                    for hosts in (1, 10, 100, 1_000, 10_000) for policy in policies])
        for cost in (0, 0.2)
    ]  # fmt: skip
    tables.append(("settings, 1,000 hosts, a refusal costs 0.2 of a request", [
        Case(1_000, True, has_limit, 0.2, threads, budget)
        for threads, budget in ((1, 120), (8, 120), (32, 120), (8, 30), (8, 600))
        for has_limit in (False, True)]))  # fmt: skip
    work = int(options.work * RATE)
    with multiprocessing.Pool() as pool:
        for title, cases in tables:
            print(f"\n**{title[0].upper()}{title[1:]}**\n", flush=True)
            print("| hosts | threads | budget | jitter | limit "
                  "| goodput | refused | failed operations | p50 | p99 | all done |")  # fmt: skip
            print("|---|---|---|---|---|---|---|---|---|---|---|")
            for case, found in zip(cases, pool.imap(run, [(case, work, options.seed) for case in cases])):
                jitter, limit = ("yes" if has else "no" for has in (case.has_jitter, case.has_limit))
                print(f"| {case.hosts:,} | {case.threads} | {case.budget:g} s | {jitter} | {limit} "
                      f"| {percent(found['goodput'])} | {percent(found['refused'])} | {percent(found['failed'])} "
                      f"| {seconds(found['p50'])} | {seconds(found['p99'])} | {seconds(found['finish'])} |",
                      flush=True)  # fmt: skip


if __name__ == "__main__":
    main()
