"""The web server that ``fetch`` gets its page from; it can go away and come back."""

import socket
import threading
from http.server import BaseHTTPRequestHandler
from socketserver import TCPServer


class _Page(BaseHTTPRequestHandler):
    def do_GET(self) -> None:
        self.send_response(200)
        self.end_headers()
        self.wfile.write(b"A page of the demonstration.\n")

    def log_message(self, format: str, *args: object) -> None:
        """Keep quiet."""


class _Server(TCPServer):
    allow_reuse_address = True
    request_queue_size = 128


class PageServer:
    """Serves on the loopback interface, always at the same port."""

    def __init__(self) -> None:
        self._port = 0  # the first start finds a free one
        self._server: _Server | None = None

    @property
    def url(self) -> str:
        """The page's address."""
        return f"http://127.0.0.1:{self._port}/"

    def start(self) -> None:
        """Serve from a thread; OSError when the port cannot be had or reached."""
        self._server = _Server(("127.0.0.1", self._port), _Page)
        self._port = self._server.server_address[1]
        self._thread = threading.Thread(
            target=self._server.serve_forever, args=(0.02,), name="page-server"
        )
        self._thread.start()
        socket.create_connection(("127.0.0.1", self._port)).close()

    def stop(self) -> None:
        """Close the port after the request being answered. Stopping again does nothing."""
        if self._server:
            self._server.shutdown()
            self._thread.join()
            self._server.server_close()
            self._server = None
