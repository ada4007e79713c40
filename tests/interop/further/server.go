// Go's net/http as a server of scripts/interop, with the answers of ../server.js: HTTP/2 over plain TCP
// and TLS. SIGTERM ends it when the requests that are running have ended.
//
// Usage: server PLAIN_ADDRESS TLS_ADDRESS DOCROOT CERTIFICATE KEY
package main

import (
	"context"
	"crypto/sha256"
	"fmt"
	"io"
	"log"
	"net/http"
	"os"
	"os/signal"
	"strings"
	"sync"
	"syscall"
	"time"

	"golang.org/x/net/http2"
	"golang.org/x/net/http2/h2c"
)

func echo(w http.ResponseWriter, r *http.Request) {
	body, _ := io.ReadAll(r.Body)
	if len(body) == 0 {
		body = []byte(r.Method + " without a body\n")
	}
	w.Write(body)
}

func upload(w http.ResponseWriter, r *http.Request) {
	digest := sha256.New()
	io.Copy(digest, r.Body)
	fmt.Fprintf(w, "%x\n", digest.Sum(nil))
}

func largeHeaders(w http.ResponseWriter, r *http.Request) {
	for i := 0; i < 16; i++ {
		w.Header().Set(fmt.Sprintf("x-filler-%d", i), strings.Repeat("f", 1000))
	}
	io.WriteString(w, "large headers\n")
}

func trailers(w http.ResponseWriter, r *http.Request) {
	w.Header().Set("trailer", "x-trailer")
	io.WriteString(w, "then trailers\n")
	w.Header().Set("x-trailer", "yes")
}

func early(w http.ResponseWriter, r *http.Request) {
	w.Header().Set("link", "</style.css>; rel=preload; as=style")
	w.WriteHeader(http.StatusEarlyHints)
	io.WriteString(w, "hinted\n")
}

func limited(w http.ResponseWriter, r *http.Request) {
	w.WriteHeader(http.StatusRequestEntityTooLarge)
	io.WriteString(w, "too large\n")
}

func status(code int) http.HandlerFunc {
	return func(w http.ResponseWriter, r *http.Request) { w.WriteHeader(code) }
}

func handler(docroot string) http.Handler {
	mux := http.NewServeMux()
	mux.Handle("/", http.FileServer(http.Dir(docroot)))
	mux.HandleFunc("/echo", echo)
	mux.HandleFunc("/app/upload", upload)
	mux.HandleFunc("/app/204", status(204))
	mux.HandleFunc("/app/304", status(304))
	mux.HandleFunc("/app/headers", largeHeaders)
	mux.HandleFunc("/app/trailers", trailers)
	mux.HandleFunc("/app/early", early)
	mux.HandleFunc("/app/limited", limited)
	return mux
}

func main() {
	h2 := &http2.Server{}
	both := handler(os.Args[3])
	plain := &http.Server{Addr: os.Args[1], Handler: h2c.NewHandler(both, h2)}
	if err := http2.ConfigureServer(plain, h2); err != nil { // so that Shutdown ends its connections
		log.Fatal(err)
	}
	tls := &http.Server{Addr: os.Args[2], Handler: both}
	go func() { log.Print(plain.ListenAndServe()) }()
	go func() { log.Print(tls.ListenAndServeTLS(os.Args[4], os.Args[5])) }()

	signals := make(chan os.Signal, 1)
	signal.Notify(signals, syscall.SIGTERM)
	<-signals
	limit, cancel := context.WithTimeout(context.Background(), 5*time.Second)
	defer cancel()
	var ended sync.WaitGroup
	for _, server := range []*http.Server{plain, tls} {
		ended.Add(1)
		go func(server *http.Server) {
			server.Shutdown(limit)
			ended.Done()
		}(server)
	}
	ended.Wait()
}
