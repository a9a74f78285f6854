'''bluetoothd mock for beacon tests: python3-dbusmock's bluez5 template plus adverts.

Loaded by path: /usr/bin/python3 -m dbusmock --system --template bluez_beacons.py

Adds what the stock template lacks (0.28.7): devices whose ManufacturerData has bluetoothd's
type a{qv}, one PropertiesChanged per advert carrying RSSI and ManufacturerData together (as
bluetoothd does with DuplicateData), adapters that refuse StartDiscovery while powered off, a
power switch that ends discovery as bluetoothd does, a readable log of discovery calls, a
flood of adverts for throughput measurements, and, once an adapter is made a radio (SetStopDelay,
DropDiscovery, Deafen), discovery that is lost as bluetoothd loses it: adverts are heard only while
the client's discovery runs.
'''

import time

import dbus
import dbus.lowlevel
from gi.repository import GLib

import dbusmock.templates.bluez5 as bluez5
from dbusmock import mockobject
from dbusmock.templates.bluez5 import *  # noqa: F401,F403 (exports the template's methods)

ADAPTER_IFACE = 'org.bluez.Adapter1'
DEVICE_IFACE = 'org.bluez.Device1'
MOCK_IFACE = 'org.bluez.Mock'


def load(mock, parameters):
    bluez5.load(mock, parameters)


def _manufacturer_data(company, data):
    return dbus.Dictionary({dbus.UInt16(company): dbus.Array(data, signature='y', variant_level=1)},
                           signature='qv', variant_level=1)


def _emit_discovering(adapter):
    adapter.EmitSignal(dbus.PROPERTIES_IFACE, 'PropertiesChanged', 'sa{sv}as', [
        ADAPTER_IFACE,
        {'Discovering': dbus.Boolean(adapter.props[ADAPTER_IFACE]['Discovering'], variant_level=1)},
        [],
    ])


def _start_discovery(adapter):
    if getattr(adapter, 'stopping', False):
        # bluetoothd finds the filter unchanged, grants the start without restarting the scan,
        # and the stop under way then ends the discovery it granted.
        adapter.lost_starts = getattr(adapter, 'lost_starts', 0) + 1
        adapter.start_lost = True
        return
    if getattr(adapter, 'refuse_starts', 0) > 0:
        adapter.refuse_starts -= 1
        raise dbus.exceptions.DBusException('Operation already in progress',
                                            name='org.bluez.Error.Failed')
    if not adapter.props[ADAPTER_IFACE]['Powered']:
        raise dbus.exceptions.DBusException('Resource Not Ready', name='org.bluez.Error.NotReady')
    adapter.props[ADAPTER_IFACE]['Discovering'] = True
    adapter.session = True
    adapter.deaf = False
    _emit_discovering(adapter)


def _stop_discovery(adapter):
    if getattr(adapter, 'radio', False) and not adapter.session:
        raise dbus.exceptions.DBusException('No discovery started', name='org.bluez.Error.Failed')
    adapter.session = False
    adapter.props[ADAPTER_IFACE]['Discovering'] = False
    _emit_discovering(adapter)


def _slow_stop(adapter, reply, error):
    '''StopDiscovery as bluetoothd answers it: only once the kernel has stopped.'''
    adapter.call_log.append((int(time.time()), 'StopDiscovery', []))
    try:
        _stop_discovery(adapter)
    except dbus.exceptions.DBusException as refused:
        error(refused)
        return
    adapter.stopping = True

    def finish():
        adapter.stopping = False
        if getattr(adapter, 'start_lost', False):
            adapter.start_lost = False
            _emit_discovering(adapter)
        reply()
        return False
    GLib.timeout_add(adapter.stop_delay, finish)


def _radio(adapter):
    if not getattr(adapter, 'radio', False):
        adapter.radio = True
        adapter.session = adapter.props[ADAPTER_IFACE]['Discovering']
    return adapter


@dbus.service.method(MOCK_IFACE, in_signature='su', out_signature='')
def SetStopDelay(_self, device_name, milliseconds):
    '''The adapter answers StopDiscovery only after the given delay, as a kernel stop takes.'''
    adapter = _radio(mockobject.objects['/org/bluez/' + device_name])
    adapter.stop_delay = milliseconds
    # Decorated here, not at module level, where dbusmock would export it on every object.
    method = dbus.service.method(ADAPTER_IFACE, in_signature='', out_signature='',
                                 async_callbacks=('reply', 'error'))(_slow_stop)
    adapter.methods[ADAPTER_IFACE]['StopDiscovery'] = ('', '', None, method)


@dbus.service.method(MOCK_IFACE, in_signature='s', out_signature='u')
def LostStarts(_self, device_name):
    '''How many of the adapter's StartDiscovery calls were granted while a stop was under way.'''
    return getattr(mockobject.objects['/org/bluez/' + device_name], 'lost_starts', 0)


@dbus.service.method(MOCK_IFACE, in_signature='s', out_signature='')
def DropDiscovery(_self, device_name):
    '''The client's discovery ends inside bluetoothd, without a call of the client's.'''
    adapter = _radio(mockobject.objects['/org/bluez/' + device_name])
    adapter.session = False
    adapter.props[ADAPTER_IFACE]['Discovering'] = False
    _emit_discovering(adapter)


@dbus.service.method(MOCK_IFACE, in_signature='s', out_signature='')
def Deafen(_self, device_name):
    '''The controller stops reporting adverts while Discovering stays true, until restarted.'''
    _radio(mockobject.objects['/org/bluez/' + device_name]).deaf = True


def _heard(device):
    '''Whether an advert reaches bluetoothd's clients: always, unless the adapter is a radio.'''
    adapter = mockobject.objects[device.path.rsplit('/', 1)[0]]
    return not getattr(adapter, 'radio', False) or (adapter.session and not adapter.deaf)


@dbus.service.method(MOCK_IFACE, in_signature='ss', out_signature='s')
def AddAdapter(self, device_name, system_name):
    path = bluez5.AddAdapter(self, device_name, system_name)
    mockobject.objects[path].AddMethods(ADAPTER_IFACE, [
        ('StartDiscovery', '', '', _start_discovery),
        ('StopDiscovery', '', '', _stop_discovery),
    ])
    return path


@dbus.service.method(MOCK_IFACE, in_signature='sb', out_signature='')
def SetPowered(_self, device_name, powered):
    adapter = mockobject.objects['/org/bluez/' + device_name]
    changed = {'Powered': dbus.Boolean(powered, variant_level=1)}
    adapter.props[ADAPTER_IFACE]['Powered'] = dbus.Boolean(powered)
    if not powered and adapter.props[ADAPTER_IFACE]['Discovering']:
        adapter.props[ADAPTER_IFACE]['Discovering'] = False
        changed['Discovering'] = dbus.Boolean(False, variant_level=1)
    adapter.EmitSignal(dbus.PROPERTIES_IFACE, 'PropertiesChanged', 'sa{sv}as',
                       [ADAPTER_IFACE, changed, []])


@dbus.service.method(MOCK_IFACE, in_signature='su', out_signature='')
def RefuseStarts(_self, device_name, count):
    '''The adapter's next count StartDiscovery calls fail (org.bluez.Error.Failed).'''
    mockobject.objects['/org/bluez/' + device_name].refuse_starts = count


@dbus.service.method(MOCK_IFACE, in_signature='s', out_signature='as')
def DiscoveryLog(_self, device_name):
    '''The adapter's discovery calls, oldest first: "StartDiscovery", "StopDiscovery" and
    "SetDiscoveryFilter DuplicateData=True RSSI=-127 Transport=le" (keys sorted).'''
    adapter = mockobject.objects['/org/bluez/' + device_name]
    lines = []
    for _time, method, args in adapter.call_log:
        if method == 'SetDiscoveryFilter':
            entries = sorted(f'{key}={args[0][key]}' for key in args[0])
            lines.append(' '.join([method] + entries))
        elif method in ('StartDiscovery', 'StopDiscovery'):
            lines.append(method)
    return lines


@dbus.service.method(MOCK_IFACE, in_signature='ssnqay', out_signature='s')
def AddBeacon(self, device_name, address, rssi, company, data):
    '''A device found while scanning, with its first advert (InterfacesAdded).'''
    adapter_path = '/org/bluez/' + device_name
    path = adapter_path + '/dev_' + address.replace(':', '_').upper()
    properties = {
        'Address': dbus.String(address, variant_level=1),
        'AddressType': dbus.String('random', variant_level=1),
        'Alias': dbus.String(address.replace(':', '-'), variant_level=1),
        'Adapter': dbus.ObjectPath(adapter_path, variant_level=1),
        'Paired': dbus.Boolean(False, variant_level=1),
        'Connected': dbus.Boolean(False, variant_level=1),
        'RSSI': dbus.Int16(rssi, variant_level=1),
        'ManufacturerData': _manufacturer_data(company, data),
    }
    self.AddObject(path, DEVICE_IFACE, properties, [])
    mockobject.objects['/'].EmitSignal('org.freedesktop.DBus.ObjectManager', 'InterfacesAdded',
                                       'oa{sa{sv}}', [dbus.ObjectPath(path),
                                                      {DEVICE_IFACE: properties}])
    return path


def _advertise(device, changed):
    device.props[DEVICE_IFACE].update(changed)
    if not _heard(device):
        return
    device.EmitSignal(dbus.PROPERTIES_IFACE, 'PropertiesChanged', 'sa{sv}as',
                      [DEVICE_IFACE, changed, []])


@dbus.service.method(MOCK_IFACE, in_signature='snqay', out_signature='')
def Advertise(_self, path, rssi, company, data):
    '''One received advert: RSSI and ManufacturerData in one PropertiesChanged.'''
    _advertise(mockobject.objects[path], {
        'RSSI': dbus.Int16(rssi, variant_level=1),
        'ManufacturerData': _manufacturer_data(company, data),
    })


@dbus.service.method(MOCK_IFACE, in_signature='sn', out_signature='')
def ChangeRssi(_self, path, rssi):
    '''An RSSI update alone, as bluetoothd sends when the advert data is unchanged.'''
    _advertise(mockobject.objects[path], {'RSSI': dbus.Int16(rssi, variant_level=1)})


@dbus.service.method(MOCK_IFACE, in_signature='sqayb', out_signature='')
def AdvertiseData(_self, path, company, data, invalidate_rssi):
    '''ManufacturerData alone, optionally with RSSI invalidated (as bluetoothd does when it
    clears a device's reading).'''
    device = mockobject.objects[path]
    changed = {'ManufacturerData': _manufacturer_data(company, data)}
    device.props[DEVICE_IFACE].update(changed)
    device.EmitSignal(dbus.PROPERTIES_IFACE, 'PropertiesChanged', 'sa{sv}as',
                      [DEVICE_IFACE, changed, ['RSSI'] if invalidate_rssi else []])


@dbus.service.method(MOCK_IFACE, in_signature='asuqay', out_signature='u')
def Flood(_self, paths, count, company, data):
    '''count adverts round-robin over the devices, as fast as this process can send them.
    Returns the number sent. Signals are built directly, bypassing the mock's logging.'''
    value = _manufacturer_data(company, data)
    devices = [mockobject.objects[path] for path in paths]
    connections = [location[0] for location in devices[0].locations]
    for i in range(count):
        device = devices[i % len(devices)]
        message = dbus.lowlevel.SignalMessage(device.path, dbus.PROPERTIES_IFACE,
                                              'PropertiesChanged')
#Each device's RSSI changes from one of its adverts to the next.
        rssi = -40 - (i // len(devices)) % 50
        message.append(DEVICE_IFACE,
                       {'RSSI': dbus.Int16(rssi, variant_level=1),
                        'ManufacturerData': value},
                       dbus.Array([], signature='s'), signature='sa{sv}as')
        for connection in connections:
            connection.send_message(message)
    for connection in connections:
        connection.flush()
    return count


# Malformed signals, as a broken or hostile owner of org.bluez could send them; each kind names
# what is wrong. The beacon's own path and a valid iBeacon frame are used where a path or data is
# needed, so that only the named part is malformed.
@dbus.service.method(MOCK_IFACE, in_signature='ssay', out_signature='')
def SendMalformed(_self, kind, path, data):
    manufacturer = _manufacturer_data(0x004c, data)
    root = mockobject.objects['/']
    device = mockobject.objects[path]
    if kind == 'added-without-interface-level':  # oa{sv} where oa{sa{sv}} is expected
        root.EmitSignal('org.freedesktop.DBus.ObjectManager', 'InterfacesAdded', 'oa{sv}',
                        [dbus.ObjectPath(path + '_x'), {'Address': dbus.String('x', variant_level=1)}])
    elif kind == 'added-as-strings':
        root.EmitSignal('org.freedesktop.DBus.ObjectManager', 'InterfacesAdded', 'ss',
                        [path + '_y', DEVICE_IFACE])
    elif kind == 'removed-as-map':
        root.EmitSignal('org.freedesktop.DBus.ObjectManager', 'InterfacesRemoved', 'oa{sv}',
                        [dbus.ObjectPath(path), {DEVICE_IFACE: dbus.String('x', variant_level=1)}])
    elif kind == 'changed-without-invalidated':
        device.EmitSignal(dbus.PROPERTIES_IFACE, 'PropertiesChanged', 'sa{sv}',
                          [DEVICE_IFACE, {'RSSI': dbus.Int16(-40, variant_level=1)}])
    elif kind == 'changed-as-array':
        device.EmitSignal(dbus.PROPERTIES_IFACE, 'PropertiesChanged', 'sasas',
                          [DEVICE_IFACE, ['RSSI'], []])
    else:
        rssi = {
            'rssi-string': dbus.String('-40', variant_level=1),
            'rssi-huge': dbus.Int64(-2**40, variant_level=1),
            'rssi-unsigned-huge': dbus.UInt64(2**64 - 40, variant_level=1),
            'rssi-struct': dbus.Struct((dbus.Int16(-40),), variant_level=1),
            'rssi-implausible': dbus.Int16(-300, variant_level=1),
            'rssi-double': dbus.Double(-40.0, variant_level=1),
        }[kind]
        device.EmitSignal(dbus.PROPERTIES_IFACE, 'PropertiesChanged', 'sa{sv}as',
                          [DEVICE_IFACE, {'RSSI': rssi, 'ManufacturerData': manufacturer}, []])
