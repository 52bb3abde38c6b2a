<?php

declare(strict_types=1);

namespace Korlo\Settings;

/**
 * What came is no answer to what was asked. The next call connects again.
 */
final class ProtocolException extends \RuntimeException implements SettingsException
{
}
