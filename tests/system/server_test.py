"""The poll of the server's alarm history, with a server that answers well, badly, late or not at all."""

import re
import signal
import time

import plant

FAILED = plant.starting("curl_easy_perform() failed: ")


class HistoryTest(plant.PlantTest):
    def start(self, answer=None):
        self.start_answers(answer)
        self.configure()
        self.project()
        self.daemon = self.start_daemon()

    def answered(self, count):
        """Waits until the daemon has printed that many answers; returns the request of the last."""
        request = self.server.wait_requests(count)
        self.daemon.out.wait(plant.starting("JSON : "), count=count)
        return request


class Polls(HistoryTest):
    def test_the_first_poll_asks_from_the_start_of_the_daemon(self):
        before = int(time.time())
        self.start()
        request = self.server.wait_requests(1)
        after = int(time.time())
        found = re.fullmatch(r"t=30&prj=7&start=(\d+)\.0&limit=10000", request.body)
        self.assertIsNotNone(found, request.body)
        self.assertTrue(before <= int(found.group(1)) <= after)
        self.assertTrue(request.head.startswith("POST /r.fcgi HTTP/1.1\r\n"), request.head)
        self.assertIn("content-type: application/x-www-form-urlencoded", request.head.lower())

    def test_polls_are_5_s_apart_and_share_one_connection(self):
        self.start()
        self.server.wait_requests(3)
        times = [request.time for request in self.server.requests[:3]]
        for earlier, later in zip(times, times[1:]):
            self.assertGreater(later - earlier, 4.9)
            self.assertLess(later - earlier, 10)
        self.assertEqual({request.connection for request in self.server.requests[:3]}, {0})

    def test_the_start_point_moves_a_microsecond_behind_the_last_entry(self):
        base = int(time.time()) + 10
        answers = [[plant.entry(14, 1, base, 250000)], [plant.entry(14, 0, base + 1, 4)],
                   [plant.entry(14, 2, base + 2, 999999)]]
        self.start(lambda n, request: plant.json_answer({"d": answers[n] if n < len(answers) else []}))
        self.server.wait_requests(4)
        starts = [re.search(r"start=([\d.]+)&", body).group(1) for body in self.server.bodies()[1:4]]
        # The part behind the point is a plain number of microseconds.
        self.assertEqual(starts, ["%d.250001" % base, "%d.5" % (base + 1), "%d.1000000" % (base + 2)])

    def test_an_answer_without_entries_leaves_the_start_point(self):
        answers = [{"d": []}, {}, {"d": None}]
        self.start(lambda n, request: plant.json_answer(answers[n] if n < len(answers) else {}))
        self.server.wait_requests(4)
        self.assertEqual(len(set(self.server.bodies()[:4])), 1)

    def test_a_new_alarm_is_printed_as_a_block(self):
        base = int(time.time()) + 10
        one = plant.entry(14, 1, base, 250000, av=1.5, dv=0.1, ackv=1e9, user="novak")
        self.start(lambda n, request: plant.json_answer({"d": [one] if n == 0 else []}))
        self.daemon.out.wait("id: 14")
        self.daemon.out.wait("--------------------------------------------")
        seconds = "%g" % base
        block = (
            ":: Check alarm (sms,email) if configured for queue...\n"
            "---------------NEW ALARM-----------------------\nid: 14\nacktm: 0.0(0)\nackv: 1e+09\narea: Area 14\n"
            "atm: %d.250000(%s)\nav: 1.5\ndev: Device 14\ndtm: 0.0(0)\ndv: 0.1\nstat: 1\nsv: 2\nuser: novak\n"
            "--------------------------------------------\n" % (base, seconds))
        self.assertIn(block, self.daemon.out.text())

    def test_the_whole_answer_is_printed(self):
        self.start(lambda n, request: plant.http_answer('{"d":[], "note":"%s %n"}'))
        self.daemon.out.wait('JSON : {"d":[], "note":"%s %n"}')

    def test_an_entry_in_another_state_is_never_new_and_leaves_the_start_point(self):
        base = int(time.time()) + 10
        entries = [plant.entry(14, 1, base), plant.entry(14, 3, base + 1)]
        self.start(lambda n, request: plant.json_answer({"d": entries if n < 2 else []}))
        self.answered(3)
        self.assertEqual(self.daemon.out.count("---------------NEW ALARM-----------------------"), 2)
        self.assertEqual(len(set(self.server.bodies()[:3])), 1)

    def test_10000_entries_are_taken(self):
        base = int(time.time()) + 10
        entries = [plant.entry(14, n % 2, base + n // 100, n) for n in range(10000)]
        self.start(lambda n, request: plant.json_answer({"d": entries if n == 0 else []}))
        self.assertIn("start=%d.10000&" % (base + 99), self.answered(2).body)
        self.assertEqual(self.daemon.out.count("---------------NEW ALARM-----------------------"), 10000)


class BadServer(HistoryTest):
    def test_without_a_port_each_poll_fails_and_is_told(self):
        self.configure(https_port=None)
        daemon = self.start_daemon()
        daemon.err.wait(FAILED, count=2)

    def test_a_server_that_comes_late_is_found(self):
        self.configure()
        self.project()
        daemon = self.start_daemon()
        daemon.err.wait(lambda line: line == "curl_easy_perform() failed: Couldn't connect to server")
        self.start_answers()
        self.server.wait_requests(1)

    def test_a_slow_answer_is_waited_for(self):
        self.start(lambda n, request: (time.sleep(7), plant.json_answer({"d": []}))[1])
        self.server.wait_requests(2)
        self.assertEqual(self.daemon.err.text(), "")

    def test_a_half_answer_stays_in_front_of_the_next_one(self):
        half = plant.http_answer('{"d":[]}')[:-4]
        self.start(lambda n, request: (half, 0) if n == 0 else plant.json_answer({"d": []}))
        self.daemon.err.wait(FAILED)
        self.daemon.out.wait('JSON : {"d"{"d": []}')
        self.daemon.out.wait("Failed to parse JSON")
        self.daemon.out.wait('JSON : {"d": []}')
        self.assertEqual(len(set(self.server.bodies()[:3])), 1)

    def test_a_connection_closed_without_an_answer_is_told_and_made_anew(self):
        self.start(lambda n, request: b"" if n < 2 else plant.json_answer({"d": []}))
        self.daemon.err.wait(FAILED)
        self.daemon.out.wait('JSON : {"d": []}')

    def test_answers_that_are_no_json_are_told_and_leave_the_start_point(self):
        page = "<html><body><h1>Not Found</h1></body></html>"
        answers = [plant.http_answer(page, "404 Not Found", "text/html"),
                   plant.http_answer(page, "500 Internal Server Error", "text/html"),
                   plant.http_answer(b"\x80\xff\x01 garbage {]"), plant.http_answer("")]
        self.start(lambda n, request: answers[n] if n < len(answers) else plant.json_answer({"d": []}))
        self.daemon.out.wait("Failed to parse JSON", count=4)
        self.daemon.out.wait('JSON : {"d": []}')
        self.assertEqual(len(set(self.server.bodies()[:5])), 1)
        self.assertEqual(self.daemon.err.text(), "")

    def test_a_redirect_in_a_circle_is_told_and_the_daemon_goes_on(self):
        location = "Location: https://127.0.0.1:%d/r.fcgi\r\n" % self.https_port
        self.good = False
        self.start(lambda n, request: plant.json_answer({"d": []}) if self.good
                   else plant.http_answer("", "302 Found", extra=location))
        self.daemon.err.wait(FAILED, limit=90)
        self.good = True
        self.daemon.out.wait('JSON : {"d": []}')

    def test_an_answer_is_cut_at_a_zero_byte(self):
        self.start(lambda n, request: plant.http_answer(b'{"d": []}\0{"d": 7}'))
        self.daemon.out.wait('JSON : {"d": []}')
        self.answered(2)
        self.assertEqual(self.daemon.out.count("Failed to parse JSON"), 0)

    def test_an_answer_of_a_wrong_shape_ends_the_process(self):
        for body in ('[1, 2]', '7', '"text"', '{"d": [1]}', '{"d": [{"id": 1, "cell": 5}]}', '{"d": [{"id": "x"}]}',
                     '{"d": [{"id": 1, "cell": {"atm": "x"}}]}'):
            with self.subTest(body):
                self.https_port = plant.free_port()
                self.start(lambda n, request, body=body: plant.http_answer(body))
                self.assertEqual(self.daemon.wait_exit(), -signal.SIGABRT, self.daemon.out.text()[-500:])
                self.assertEqual(len(self.daemon.err.texts()), 1, self.daemon.err.text())
                self.assertIn("JSON : " + body, self.daemon.out.texts())

    def test_a_server_without_tls_is_told(self):
        listener = plant.socket.socket()
        self.addCleanup(listener.close)
        listener.bind(("127.0.0.1", self.https_port))
        listener.listen(8)

        def talk():
            try:
                while True:
                    connection, _ = listener.accept()
                    connection.sendall(b"HTTP/1.1 400 Bad Request\r\n\r\n")
                    connection.close()
            except OSError:
                pass

        plant.threading.Thread(target=talk, daemon=True).start()
        self.configure()
        daemon = self.start_daemon()
        daemon.err.wait(FAILED, count=2)

    def test_a_large_answer_is_taken_whole(self):
        body = '{"d": [], "x": "%s"}' % ("y" * 15000000)
        self.start(lambda n, request: plant.http_answer(body if n == 0 else "{}"))
        self.answered(2)
        self.assertEqual(self.daemon.out.count("JSON : " + body), 1)
        self.assertEqual(self.daemon.out.count("Failed to parse JSON"), 0)


if __name__ == "__main__":
    plant.main()
