"""The web face over real sockets: routes, rights, limits, and clients that do what they should not."""
import json
import pathlib
import re
import ssl
import subprocess
import tempfile
import time

import served
from served import Case, Served, WebSocket, until

API = "/api/devices/camera@127.0.0.1"
STREAM = API + "/services/level/stream"


class Routes(Case):
    def test_page_and_its_files_have_their_types_and_no_foreign_resource(self):
        status, headers, body = self.hub.get("/")
        self.assertEqual((status, headers["content-type"]), (200, "text/html; charset=utf-8"))
        for path in re.findall(r'(?:src|href)="(/[^"#]+)"', body.decode()) + ["/page/text.js", "/page/plot.js"]:
            if path == "/api/devices":
                continue
            self.assertEqual(self.hub.get(path)[0], 200, path)
        self.assertEqual(self.hub.get("/page/views.js")[1]["content-type"], "text/javascript; charset=utf-8")
        for file in served.page_folder().iterdir():
            text = file.read_text().replace("http://www.w3.org/2000/svg", "")
            self.assertIsNone(re.search(r"https?://[a-z]", text), file)
            self.assertIsNone(re.search(r"innerHTML|insertAdjacentHTML|document\.write|\beval\(", text), file)

    def test_each_reply_has_the_headers_that_confine_the_page(self):
        for path in ("/", "/api/devices", "/nothing", "/healthz"):
            headers = self.hub.get(path)[1]
            self.assertIn("default-src 'self'", headers["content-security-policy"])
            self.assertIn("frame-ancestors 'none'", headers["content-security-policy"])
            self.assertNotIn("unsafe", headers["content-security-policy"])
            self.assertEqual(headers["x-frame-options"], "DENY")
            self.assertEqual(headers["x-content-type-options"], "nosniff")
            self.assertEqual(headers["cross-origin-resource-policy"], "same-origin")
            self.assertNotIn("access-control-allow-origin", headers)

    def test_devices_are_listed_and_found_by_id_and_by_type(self):
        listed = json.loads(self.hub.get("/api/devices")[2])["devices"]
        self.assertEqual([device["id"] for device in listed], ["camera@127.0.0.1"])
        for name in ("camera@127.0.0.1", "camera", "camera%40127.0.0.1", "camera%2540127.0.0.1"):
            status, _, body = self.hub.get(f"/api/devices/{name}")
            self.assertEqual((status, json.loads(body)["id"]), (200, "camera@127.0.0.1"), name)
        self.assertEqual(self.hub.get("/api/devices/none")[0], 404)

    def test_names_with_any_characters_can_be_addressed(self):
        self.hub.do("appear odd/%41?..@127.0.0.1 a/b")
        self.addCleanup(self.hub.do, "leave odd/%41?..@127.0.0.1")
        status, _, body = self.hub.get("/api/devices/odd%252F%252541%253F%252E%252E@127.0.0.1")
        self.assertEqual((status, json.loads(body)["id"]), (200, "odd/%41?..@127.0.0.1"))

    def test_unknown_addresses_and_methods_are_refused(self):
        self.assertEqual(self.hub.get("/api/nothing")[0], 404)
        self.assertEqual(self.hub.get("/page/../../etc/passwd")[0], 404)
        self.assertEqual(self.hub.ask("POST", "/api/devices", body=b"x")[0], 405)
        self.assertEqual(self.hub.ask("DELETE", "/api/devices/camera")[0], 405)
        self.assertEqual(self.hub.ask("PUT", "/api/devices/camera/data", body=b"x")[0], 405)
        self.assertEqual(self.hub.get("/api/devices/camera/data")[0], 405)

    def test_head_gives_the_head_of_get_alone(self):
        status, headers, body = self.hub.ask("HEAD", "/api/openapi.json")
        self.assertEqual((status, body), (200, b""))
        self.assertEqual(int(headers["content-length"]), (served.page_folder() / "openapi.json").stat().st_size)

    def test_one_connection_carries_many_requests(self):
        with self.hub.connect() as connection:
            for _ in range(50):
                request = f"GET /healthz HTTP/1.1\r\nHost: {self.hub.host}\r\n\r\n".encode()
                self.assertEqual(self.hub.raw(request, connection)[::2], (200, b"ok\n"))
            body = b'{"name":"go"}'
            request = (f"POST {API}/commands HTTP/1.1\r\nHost: {self.hub.host}\r\nContent-Type: application/json\r\n"
                       f"Content-Length: {len(body)}\r\n\r\n").encode() + body
            for _ in range(5):
                self.assertEqual(self.hub.raw(request, connection)[0], 200)
        # Otherwise the next test may find them.
        until(lambda: len(self.hub.sent()) == 5)

    def test_commands_reach_the_device(self):
        status, _, body = self.hub.command("camera", '{"name": "zoom", "parameter": "2"}')
        self.assertEqual((status, json.loads(body)), (200, {"done": True}))
        until(lambda: self.hub.sent() == ["command camera zoom 2"])

    def test_bad_commands_are_refused(self):
        for text in ("", "{", "[]", '{"name":1}', '{"name":""}', '{"parameter":"x"}', '{"name":"a","parameter":1}'):
            self.assertEqual(self.hub.command("camera", text)[0], 400, text)
        self.assertEqual(self.hub.command("camera", "{}", {"Content-Type": "text/plain"})[0], 415)
        self.assertEqual(self.hub.command("nothing", '{"name":"a"}')[0], 404)
        self.assertEqual([line for line in self.hub.sent() if "nothing" not in line], [])

    def test_outcomes_of_devices_have_their_statuses(self):
        self.addCleanup(self.hub.do, "outcome 0")
        for outcome, status in enumerate((200, 404, 504, 502, 400, 503)):
            self.hub.do(f"outcome {outcome}")
            self.assertEqual(self.hub.command("camera", '{"name":"a"}')[0], status)

    def test_a_block_of_the_largest_size_reaches_the_device(self):
        self.assertEqual(self.hub.ask("POST", API + "/data", body=b"x" * 5242880)[0], 200)
        self.assertEqual(until(self.hub.sent)[0][:38], "block camera@127.0.0.1 5242880 xxxxxxx")

    def test_a_larger_block_is_refused_before_it_is_received(self):
        request = (f"POST {API}/data HTTP/1.1\r\nHost: {self.hub.host}\r\nContent-Length: 5242881\r\n\r\n").encode()
        self.assertEqual(self.hub.raw(request)[0], 413)  # no byte of the body was sent
        self.assertEqual(self.hub.ask("POST", API + "/data", body=b"x" * 5242881)[0], 413)
        self.assertEqual(self.hub.command("camera", "x" * 8193)[0], 413)
        self.assertEqual(self.hub.sent(), [])

    def test_a_body_without_a_length_is_refused(self):
        self.assertEqual(self.hub.ask("POST", API + "/data", {"Transfer-Encoding": "chunked"},
                                      b"3\r\nabc\r\n0\r\n\r\n")[0], 411)
        self.assertEqual(self.hub.ask("POST", API + "/data")[0], 411)
        self.assertEqual(self.hub.ask("POST", API + "/data", body=b"")[0], 400)

    def test_latest_block_comes_with_its_type_and_number(self):
        self.hub.do('text camera@127.0.0.1 level {"a": 1}')
        waiting = [self.hub.connect() for _ in range(3)]
        for connection in waiting:
            connection.sendall(f"GET {API}/services/level/latest HTTP/1.1\r\nHost: {self.hub.host}\r\n\r\n".encode())
        until(lambda: self.subscribers() == 1, what="one subscription for all of them")
        self.hub.do('text camera@127.0.0.1 level {"a": 2}')
        for connection in waiting:
            status, headers, body = served.read_reply(connection)
            self.assertEqual((status, body, headers["content-type"]), (200, b'{"a": 2}', "application/json"))
            connection.close()
        with tempfile.NamedTemporaryFile() as file:
            file.write(b"\xff\xd8\xff\xe0 not a whole picture")
            file.flush()
            self.hub.do(f"file camera@127.0.0.1 level {file.name}")

        def picture():
            got = self.hub.get(f"{API}/services/level/latest")
            return got if got[1]["content-type"] == "image/jpeg" else None
        reply = until(picture)
        self.assertEqual(reply[2], b"\xff\xd8\xff\xe0 not a whole picture")
        self.assertGreater(int(reply[1]["x-lumora-number"]), 1)

    def test_metrics_are_as_prometheus_reads_them(self):
        status, headers, body = self.hub.get("/metrics")
        self.assertEqual((status, headers["content-type"]), (200, "text/plain; version=0.0.4; charset=utf-8"))
        kinds = {}
        for line in body.decode().splitlines():
            if line.startswith("# TYPE "):
                name, kind = line.split()[2:]
                self.assertNotIn(name, kinds)
                kinds[name] = kind
            elif not line.startswith("#"):
                self.assertRegex(line, r'^[a-z_]+(\{[a-z]+="([^"\\\n]|\\.)*"(,[a-z]+="([^"\\\n]|\\.)*")*\})? [0-9.e+-]+$')
                base = re.sub(r"_(bucket|sum|count)$", "", re.split(r"[{ ]", line)[0])
                self.assertIn(base, kinds)
        for name in ("lumora_hub_devices", "lumora_hub_channels", "lumora_hub_blocks_total", "lumora_hub_bytes_total",
                     "lumora_hub_reconnects_total", "lumora_hub_http_replies_total", "lumora_hub_web_latency_seconds"):
            self.assertIn(name, kinds)


class Description(Case):
    """openapi.json against the routes, both ways."""

    def described(self):
        return json.loads(self.hub.get("/api/openapi.json")[2])

    def test_each_described_route_answers_with_a_described_status(self):
        self.hub.do("text camera@127.0.0.1 level 1")
        for path, methods in self.described()["paths"].items():
            for method, operation in methods.items():
                real = path.replace("{device}", "camera@127.0.0.1").replace("{service}", "level")
                with self.subTest(method=method, path=path):
                    kinds = operation.get("requestBody", {}).get("content", {"": 0})
                    headers = {"Content-Type": next(iter(kinds))} if next(iter(kinds)) else {}
                    body = b'{"name":"a"}' if method == "post" else None
                    if "101" in operation["responses"]:
                        socket = WebSocket(self.hub, real)
                        socket.close()
                        self.assertEqual(socket.status, 101)
                        if "200" not in operation["responses"]:
                            self.assertEqual(self.hub.get(real)[0], 426)
                            continue
                    status, kind = self.first_of(method.upper(), real, headers, body)
                    self.assertIn(str(status), operation["responses"])
                    described = operation["responses"][str(status)].get("content", {})
                    if status < 300:
                        self.assertTrue(any(kind.startswith(name.split(";")[0]) for name in described), (kind, described))

    def first_of(self, method, path, headers, body):
        """The status and type; a stream is not read to its end."""
        with self.hub.connect() as connection:
            lines = {"Host": self.hub.host, **headers, **({"Content-Length": len(body)} if body else {})}
            head = f"{method} {path} HTTP/1.1\r\n" + "".join(f"{name}: {value}\r\n" for name, value in lines.items())
            connection.sendall(head.encode() + b"\r\n" + (body or b""))
            if path.endswith("/latest"):
                until(lambda: self.subscribers() == 1)
                self.hub.do("text camera@127.0.0.1 level 1")
            got = b""
            while b"\r\n\r\n" not in got:
                got += connection.recv(4096)
            text = got.decode("latin-1").lower()
            kind = re.search(r"\r\ncontent-type: ([^\r]*)", text)
            return int(text.split()[1]), kind.group(1) if kind else ""

    def test_each_route_is_described(self):
        source = (served.page_folder().parent / "routes.cpp").read_text()
        routes = set(re.findall(r'Method::(\w+), "([^"]+)"', source))
        described = {(method.upper(), path) for path, methods in self.described()["paths"].items() for method in methods}
        pages = {route for route in routes if route[1].startswith("/page/")}
        self.assertGreater(len(routes), 15)
        self.assertEqual(routes - pages, described)

    def test_references_inside_the_description_lead_somewhere(self):
        text = self.hub.get("/api/openapi.json")[2].decode()
        document = json.loads(text)
        self.assertRegex(document["openapi"], r"^3\.")
        for reference in re.findall(r'"\$ref": *"#/([^"]+)"', text):
            place = document
            for name in reference.split("/"):
                place = place[name]

    def test_described_device_has_the_members_of_a_real_one(self):
        schema = self.described()["components"]["schemas"]
        device = json.loads(self.hub.get("/api/devices/camera")[2])
        self.assertEqual(set(schema["Device"]["properties"]), set(device))
        self.assertEqual(set(schema["Service"]["properties"]), set(device["services"][0]))


class Foreigners(Case):
    OPTIONS = ("--host-name", "hub.example")

    def test_only_own_names_are_served(self):
        port = self.hub.port
        for host in (f"127.0.0.1:{port}", f"localhost:{port}", f"LOCALHOST:{port}", "hub.example", "[::1]", "10.1.2.3"):
            self.assertEqual(self.hub.get("/api/devices", host=host)[0], 200, host)
        for host in ("evil.example", "localhost.evil.example", "hub.example.evil", "127.0.0.1.evil", "x:y", "[::1"):
            self.assertEqual(self.hub.get("/api/devices", host=host)[0], 421, host)

    def test_a_request_without_a_host_is_refused(self):
        self.assertIn(self.hub.raw(b"GET /api/devices HTTP/1.1\r\n\r\n")[0], (0, 400, 421))
        self.assertIn(self.hub.raw(b"GET /api/devices HTTP/1.0\r\n\r\n")[0], (0, 400, 421))

    def test_posts_of_foreign_pages_are_refused(self):
        own = f"http://{self.hub.host}"
        self.assertEqual(self.hub.command("camera", '{"name":"a"}', {"Origin": own})[0], 200)
        until(lambda: self.hub.sent() == ["command camera a "])
        self.hub.forget_sent()
        for origin in ("http://evil.example", "null", "http://127.0.0.1:1", "file://", own + ".evil.example"):
            self.assertEqual(self.hub.command("camera", '{"name":"a"}', {"Origin": origin})[0], 403, origin)
            self.assertEqual(self.hub.ask("POST", API + "/data", {"Origin": origin}, b"x")[0], 403, origin)
        self.assertEqual(self.hub.sent(), [])

    def test_websockets_of_foreign_pages_are_refused(self):
        for headers, status in (({}, 101), ({"Origin": f"http://{self.hub.host}"}, 101),
                                ({"Origin": "http://evil.example"}, 403), ({"Origin": "null"}, 403)):
            for path in (STREAM, "/api/events"):
                socket = WebSocket(self.hub, path, headers)
                self.assertEqual(socket.status, status, (path, headers))
                socket.close()
        socket = WebSocket(self.hub, STREAM, host="evil.example")
        self.assertEqual(socket.status, 421)
        socket.close()

    def test_pictures_cannot_be_embedded_by_foreign_pages(self):
        for site, status in (("same-origin", 200), ("none", 200), ("cross-site", 403), ("same-site", 403)):
            self.assertEqual(self.hub.get("/api/devices", {"Sec-Fetch-Site": site})[0], status)

    def test_no_preflight_is_granted(self):
        status, headers, _ = self.hub.ask("OPTIONS", API + "/commands", {"Origin": "http://evil.example",
                                                                         "Access-Control-Request-Method": "POST"})
        self.assertIn(status, (403, 405))
        self.assertFalse([name for name in headers if name.startswith("access-control")])


class Tokens(Case):
    TOKEN = "a-token-of-some-length"
    OPTIONS = ("--token", TOKEN)

    def test_only_open_routes_go_without_a_token(self):
        for path in ("/api/devices", "/metrics", "/api/openapi.json", "/page/app.js", API + "/services/level/latest"):
            status, headers, _ = self.hub.get(path)
            self.assertEqual((status, headers.get("www-authenticate")), (401, "Bearer"), path)
        self.assertEqual(self.hub.command("camera", '{"name":"a"}')[0], 401)
        self.assertEqual(self.hub.get("/")[0], 303)
        for path in ("/healthz", "/login", "/page/style.css"):
            self.assertEqual(self.hub.get(path)[0], 200)
        self.assertEqual(self.hub.sent(), [])

    def test_bearer_tokens_are_compared_whole(self):
        for token, status in ((self.TOKEN, 200), (self.TOKEN[:-1], 401), (self.TOKEN + "x", 401), ("", 401),
                              (self.TOKEN.upper(), 401)):
            self.assertEqual(self.hub.get("/api/devices", {"Authorization": f"Bearer {token}"})[0], status, token)

    def log_in(self, token):
        return self.hub.ask("POST", "/login", {"Content-Type": "application/x-www-form-urlencoded"},
                            f"token={token}".encode())

    def test_the_form_gives_a_cookie_that_ends_with_the_logout(self):
        status, headers, _ = self.log_in(self.TOKEN)
        self.assertEqual((status, headers["location"]), (303, "/"))
        cookie, *rules = headers["set-cookie"].split("; ")
        self.assertLessEqual({"HttpOnly", "SameSite=Strict", "Path=/"}, set(rules))
        self.assertNotIn(self.TOKEN, cookie)
        self.assertEqual(self.hub.get("/api/devices", {"Cookie": f"a=b; {cookie}; c=d"})[0], 200)
        socket = WebSocket(self.hub, STREAM, {"Cookie": cookie})
        self.assertEqual(socket.status, 101)
        socket.close()
        self.assertEqual(self.hub.ask("POST", "/logout", {"Cookie": cookie, "Content-Length": "0"})[0], 303)
        self.assertEqual(self.hub.get("/api/devices", {"Cookie": cookie})[0], 401)

    def test_a_wrong_token_gives_no_cookie(self):
        status, headers, _ = self.log_in("wrong")
        self.assertEqual((status, "set-cookie" in headers), (403, False))
        for cookie in ("lumora_hub=", "lumora_hub=" + "0" * 64, "lumora_hub"):
            self.assertEqual(self.hub.get("/api/devices", {"Cookie": cookie})[0], 401)

    def test_a_websocket_needs_the_token(self):
        for headers, status in (({}, 401), ({"Authorization": f"Bearer {self.TOKEN}"}, 101)):
            socket = WebSocket(self.hub, STREAM, headers)
            self.assertEqual(socket.status, status)
            socket.close()

    def test_only_the_newest_64_logins_count(self):
        cookies = [self.log_in(self.TOKEN)[1]["set-cookie"].split(";")[0] for _ in range(66)]
        self.assertEqual([self.hub.get("/api/devices", {"Cookie": cookie})[0] for cookie in cookies[:3] + cookies[-1:]],
                         [401, 401, 200, 200])


class Refusals(Case):
    def refused(self, *options):
        ended = subprocess.run([served.PROGRAM, *options], stdin=subprocess.DEVNULL, capture_output=True, text=True)
        self.assertEqual(ended.returncode, 1, ended.stdout)
        return ended.stderr

    def test_other_addresses_need_a_token_and_tls(self):
        self.assertIn("needs a token", self.refused("--listen", "0.0.0.0:0"))
        self.assertIn("needs a certificate", self.refused("--listen", "0.0.0.0:0", "--token", "x" * 16))
        self.assertIn("16 characters", self.refused("--token", "short"))
        self.assertIn("a certificate needs its key", self.refused("--certificate", "/nothing"))
        hub = Served("--listen", "0.0.0.0:0", "--token", "x" * 16, "--allow-plain-http")
        self.assertEqual(hub.get("/api/devices")[0], 401)
        hub.close()

    def test_a_taken_port_and_a_bad_certificate_are_told(self):
        self.assertIn("cannot listen", self.refused("--listen", self.hub.host))
        self.assertIn("cannot listen", self.refused("--certificate", "/nothing", "--key", "/nothing"))


class Tls(Case):
    def test_tls_serves_and_marks_the_cookie(self):
        with tempfile.TemporaryDirectory() as folder:
            key, certificate = pathlib.Path(folder) / "key.pem", pathlib.Path(folder) / "certificate.pem"
            subprocess.run(["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes",
                            "-subj", "/CN=localhost", "-addext", "subjectAltName=IP:127.0.0.1", "-days", "2",
                            "-keyout", key, "-out", certificate], check=True, capture_output=True)
            hub = Served("--token", "x" * 16, "--certificate", str(certificate), "--key", str(key))
            self.assertTrue(hub.url.startswith("https://"))
            context = ssl.create_default_context(cafile=str(certificate))
            body = b"token=" + b"x" * 16
            with context.wrap_socket(hub.connect(), server_hostname="127.0.0.1") as connection:
                head = f"POST /login HTTP/1.1\r\nHost: {hub.host}\r\nContent-Length: {len(body)}\r\n\r\n"
                connection.sendall(head.encode() + body)
                headers = served.read_reply(connection)[1]
            self.assertIn("; Secure", headers["set-cookie"])
            connection = context.wrap_socket(hub.connect(), server_hostname="127.0.0.1")
            socket = WebSocket(hub, "/api/events", {"Cookie": headers["set-cookie"].split(";")[0]}, connection=connection)
            self.assertEqual(json.loads(socket.message())["type"], "devices")
            socket.close()
            self.assertNotIn(b"HTTP/1.1 200", hub.raw(f"GET /healthz HTTP/1.1\r\nHost: {hub.host}\r\n\r\n".encode())[2])
            hub.close()


class Limits(Case):
    OPTIONS = ("--connections", "60", "--connections-of-address", "40", "--streams", "5", "--times-ms", "2000",
               "--pending", "3")

    def test_connections_beyond_the_limit_of_an_address_are_closed(self):
        many = [self.hub.connect() for _ in range(200)]
        closed = 0
        for connection in many:
            connection.settimeout(0.05)
            try:
                closed += connection.recv(1) == b""
            except ConnectionResetError:
                closed += 1
            except TimeoutError:
                pass
        for connection in many:
            connection.close()
        self.assertGreaterEqual(closed, 160)
        until(lambda: self.hub.get("/healthz")[0] == 200)
        self.assertGreaterEqual(self.metric("lumora_hub_http_refused_total"), 160)
        until(lambda: self.metric("lumora_hub_http_connections") == 1)

    def closing_time(self, connection, send):
        """Seconds until the server closes; send is called each 0.1 s."""
        connection.settimeout(0.1)
        begin = time.monotonic()
        while time.monotonic() - begin < 15:
            try:
                send()
                if connection.recv(4096) == b"":
                    break
            except TimeoutError:
                continue
            except (ConnectionResetError, BrokenPipeError):
                break
        return time.monotonic() - begin

    def test_a_head_that_comes_slowly_is_not_awaited(self):
        with self.hub.connect() as connection:
            connection.sendall(b"GET / HTTP/1.1\r\nX-Slow: ")
            self.assertLess(self.closing_time(connection, lambda: connection.sendall(b"a")), 5)
        with self.hub.connect() as connection:
            self.assertLess(self.closing_time(connection, lambda: None), 5)

    def test_a_body_that_comes_slowly_is_not_awaited(self):
        with self.hub.connect() as connection:
            connection.sendall(f"POST {API}/data HTTP/1.1\r\nHost: {self.hub.host}\r\nContent-Length: 1000\r\n\r\n".encode())
            self.assertLess(self.closing_time(connection, lambda: connection.sendall(b"a")), 5)
        self.assertEqual(self.hub.sent(), [])

    def test_a_reply_that_is_not_read_is_given_up(self):
        with tempfile.NamedTemporaryFile() as file:
            file.write(b"x" * 20_000_000)
            file.flush()
            with self.hub.connect() as connection:
                connection.sendall(f"GET {API}/services/picture/latest HTTP/1.1\r\nHost: {self.hub.host}\r\n\r\n".encode())
                until(lambda: self.subscribers("picture") == 1)
                self.hub.do(f"file camera@127.0.0.1 picture {file.name}")
                before = self.metric("lumora_hub_http_expired_total")
                until(lambda: self.metric("lumora_hub_http_expired_total") > before)

    def test_a_large_head_is_refused(self):
        reply = self.hub.raw(f"GET / HTTP/1.1\r\nHost: {self.hub.host}\r\nX: {'a' * 20000}\r\n\r\n".encode())
        self.assertNotEqual(reply[0], 200)
        reply = self.hub.raw(f"GET /{'a' * 20000} HTTP/1.1\r\nHost: {self.hub.host}\r\n\r\n".encode())
        self.assertNotEqual(reply[0], 200)
        self.assertEqual(self.hub.get("/healthz")[0], 200)

    def test_a_device_that_does_not_answer_keeps_few_requests(self):
        self.hub.do("outcome -1")
        self.addCleanup(self.hub.do, "outcome 0")
        waiting = [self.hub.connect() for _ in range(3)]
        body = b'{"name":"slow"}'
        head = (f"POST {API}/commands HTTP/1.1\r\nHost: {self.hub.host}\r\nContent-Type: application/json\r\n"
                f"Content-Length: {len(body)}\r\n\r\n").encode()
        for connection in waiting:
            connection.sendall(head + body)
        until(lambda: len(self.hub.sent()) == 3)
        self.assertEqual(self.hub.command("camera", '{"name":"a"}')[0], 503)
        self.assertEqual([served.read_reply(connection)[0] for connection in waiting], [504] * 3)
        self.assertEqual(self.hub.command("camera", '{"name":"a"}')[0], 503)  # the device still has them
        self.hub.do("outcome 0")
        self.assertEqual(until(lambda: self.hub.command("camera", '{"name":"a"}')[0] == 200), True)
        for connection in waiting:
            connection.close()

    def test_streams_are_limited(self):
        sockets = [WebSocket(self.hub, STREAM) for _ in range(7)]
        self.assertEqual([socket.status for socket in sockets], [101] * 5 + [503] * 2)
        for socket in sockets:
            socket.close()
        until(lambda: self.metric("lumora_hub_web_streams") == 0)

    def test_a_latest_block_is_not_awaited_for_ever(self):
        self.assertEqual(self.hub.get(f"{API}/services/none/latest")[0], 504)


class Garbage(Case):
    def test_garbage_harms_no_one(self):
        host = self.hub.host.encode()
        post = b"POST /api/devices/camera/data HTTP/1.1\r\nHost: " + host + b"\r\nContent-Length: "
        for request in (b"\x00" * 1000, b"\x16\x03\x01\x02\x00\x01\x00\x01\xfc\x03\x03" + b"a" * 300, b"GET\r\n\r\n",
                        b"GET / HTTP/9.9\r\nHost: " + host + b"\r\n\r\n", b"\r\n" * 500,
                        b"GET " + b"/" * 3000 + b" HTTP/1.1\r\n\r\n",
                        post + b"-5\r\n\r\nabc", post + b"9" * 20 + b"\r\n\r\na",
                        b"GET /api/devices/%00%ff%zz HTTP/1.1\r\nHost: " + host + b"\r\n\r\n",
                        b"PRI * HTTP/2.0\r\n\r\nSM\r\n\r\n",
                        b"GET / HTTP/1.1\r\nHost: " + host + b"\r\nConnection: Upgrade, HTTP2-Settings\r\n"
                        b"Upgrade: h2c\r\nHTTP2-Settings: AAMAAABkAAQAAP__\r\n\r\n"):
            with self.hub.connect() as connection:
                connection.settimeout(1)
                connection.sendall(request)
                try:
                    connection.recv(65536)
                except (TimeoutError, ConnectionResetError):
                    pass
        self.assertEqual(self.hub.get("/healthz")[0], 200)

    def test_garbage_over_a_websocket_closes_it_alone(self):
        good = WebSocket(self.hub, STREAM)
        for content in (b"\xff" * 200, b"\x82\xff" + b"\x7f" * 200, b"\x01\x80aaaa\x01\x80aaaa", b"\x82\x85abcdhello"):
            bad = WebSocket(self.hub, STREAM)
            bad.socket.sendall(content)
            with self.assertRaises((EOFError, ConnectionResetError)):
                bad.message()
            bad.close()
        self.hub.do("text camera@127.0.0.1 level fine")
        self.assertEqual(good.block()[3], b"fine")
        good.close()

    def test_clients_that_vanish_in_the_middle_leave_nothing(self):
        head = b"POST /api/devices/camera/data HTTP/1.1\r\nHost: localhost\r\nContent-Length: 9999\r\n\r\n"
        for part in (b"GET / HT", head + b"abc"):
            for _ in range(30):
                connection = self.hub.connect()
                connection.sendall(part)
                connection.close()
        until(lambda: self.metric("lumora_hub_http_connections") == 1)


if __name__ == "__main__":
    served.main()
