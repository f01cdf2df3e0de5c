// The questions of scripts/bench.sh (see Ask.cpp), asked of the Go netlink library, which asks the kernel each time.
package main

import (
	"fmt"
	"net"
	"os"
	"sort"
	"strconv"
	"strings"
	"syscall"
	"time"

	"github.com/vishvananda/netlink"
)

func check(err error) {
	if err != nil {
		panic(err)
	}
}

func ask(name string) (netlink.Link, []netlink.Addr) {
	link, err := netlink.LinkByName(name)
	check(err)
	addresses, err := netlink.AddrList(link, netlink.FAMILY_V4)
	check(err)
	return link, addresses
}

func add(link netlink.Link, text string) {
	address, err := netlink.ParseAddr(text)
	check(err)
	check(netlink.AddrAdd(link, address))
}

// Asks again, and compares.
func verify(name string, text string, isWanted func(*netlink.LinkAttrs) bool) {
	link, addresses := ask(name)
	if !isWanted(link.Attrs()) || len(addresses) != 1 || addresses[0].IPNet.String() != text {
		panic("not as wanted: " + name)
	}
}

func update(name string, mtu int, text string) {
	link, old := ask(name)
	check(netlink.LinkSetMTU(link, mtu))
	for i := range old {
		check(netlink.AddrDel(link, &old[i]))
	}
	add(link, text)
	verify(name, text, func(found *netlink.LinkAttrs) bool { return found.MTU == mtu })
}

// Brings a link, or a VLAN, which it makes, from nothing to address and route.
func bring(name string, number int) {
	if parentName, id, isVlan := strings.Cut(name, "."); isVlan {
		parent, err := netlink.LinkByName(parentName)
		check(err)
		attributes := netlink.NewLinkAttrs()
		attributes.Name, attributes.ParentIndex = name, parent.Attrs().Index
		vlanId, err := strconv.Atoi(id)
		check(err)
		check(netlink.LinkAdd(&netlink.Vlan{LinkAttrs: attributes, VlanId: vlanId}))
	}
	link, err := netlink.LinkByName(name)
	check(err)
	check(netlink.LinkSetUp(link))
	text := fmt.Sprintf("10.100.%d.1/24", number)
	add(link, text)
	verify(name, text, func(found *netlink.LinkAttrs) bool { return found.Flags&net.FlagUp != 0 })
	_, destination, err := net.ParseCIDR(fmt.Sprintf("10.101.%d.0/24", number))
	check(err)
	check(netlink.RouteAdd(&netlink.Route{Dst: destination, Gw: net.IPv4(10, 100, byte(number), 2)}))
}

// Repeats the step for a second, with pauses, and prints the median of its times.
func measure(pause time.Duration, step func(i int)) {
	var times []float64
	for begin := time.Now(); time.Since(begin) < time.Second; {
		start := time.Now()
		step(len(times))
		times = append(times, float64(time.Since(start).Nanoseconds())/1000)
		if pause > 0 { // time.Sleep may round it up to a millisecond; a signal of Go's own may end this one early
			duration := syscall.NsecToTimespec(pause.Nanoseconds())
			_ = syscall.Nanosleep(&duration, nil)
		}
	}
	sort.Float64s(times)
	fmt.Printf("%.2f\n", times[len(times)/2])
}

func main() {
	question, names := os.Args[1], os.Args[2:]
	switch question {
	case "query":
		measure(0, func(i int) {
			if _, addresses := ask(names[i%len(names)]); len(addresses) != 1 {
				panic("not as expected")
			}
		})
	case "update":
		pause, err := strconv.Atoi(names[0])
		check(err)
		measure(time.Duration(pause)*time.Microsecond,
			func(i int) { update("p", 1400+i%2, fmt.Sprintf("10.20%d.0.1/24", i%2)) })
	case "boot":
		for i, name := range names {
			bring(name, i+1)
		}
	default:
		panic("no such question: " + question)
	}
}
